#pragma once

#include <propidl.h>

extern "C" HRESULT VariantClear(VARIANTARG* value);
extern "C" HRESULT VariantCopy(VARIANTARG* target, const VARIANTARG* source);
