#pragma once

#include "paths/status_guard.h"
