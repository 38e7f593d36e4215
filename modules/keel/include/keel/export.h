// Which symbols of keel are exported.
#pragma once

#if defined(_WIN32)
#if defined(KEEL_BUILDING)
#define KEEL_API __declspec(dllexport)
#else
#define KEEL_API __declspec(dllimport)
#endif
#else
/// Marks them.
#define KEEL_API __attribute__((visibility("default")))
#endif
