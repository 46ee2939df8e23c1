#pragma once

/// \file
/// The export mark of the shared library.

/// \def SETTINGS_MANAGER_API
/// Marks what the shared library exports; everything else is built with hidden visibility.
#if defined(_WIN32)
#define SETTINGS_MANAGER_API
#else
#define SETTINGS_MANAGER_API __attribute__((visibility("default")))
#endif
