// KEEL_API marks exported symbols of keel.
#pragma once

#if defined(_WIN32)
#if defined(KEEL_BUILDING)
#define KEEL_API __declspec(dllexport)
#else
#define KEEL_API __declspec(dllimport)
#endif
#else
#define KEEL_API __attribute__((visibility("default")))
#endif
