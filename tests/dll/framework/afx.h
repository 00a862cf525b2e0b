// In place of the application framework's header, for what it asks of those who include it.
#pragma once

#if defined(_WINDOWS_) || defined(_INC_WINDOWS)
#error "The framework has to be included before windows.h"
#endif

// What follows gets the stand-in, so that it compiles.
#undef VEXEL_FRAMEWORK_MFC
