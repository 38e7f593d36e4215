/* Which symbols of xfer are exported.  Define XFER_STATIC to link the library's objects directly. */
#ifndef XFER_EXPORT_H
#define XFER_EXPORT_H

#if defined(XFER_STATIC)
#define XFER_API
#elif defined(_WIN32)
#if defined(XFER_BUILDING)
#define XFER_API __declspec(dllexport)
#else
#define XFER_API __declspec(dllimport)
#endif
#else
/* Marks them. */
#define XFER_API __attribute__((visibility("default")))
#endif

#endif
