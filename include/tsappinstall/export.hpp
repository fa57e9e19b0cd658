#pragma once

// Everything is built with -fvisibility=hidden; only what carries TSAPP_API
// is part of the shared library's interface.
#if defined(TSAPPINSTALL_STATIC)
#define TSAPP_API
#else
#define TSAPP_API __attribute__((visibility("default")))
#endif
