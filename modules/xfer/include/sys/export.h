// Macros for an interface between separately built modules: shared type information, and one vtable layout for every
// compiler.
//
// On Windows the layout is Microsoft's, which differs in two ways from that of all other compilers (MinGW's included):
//   - a virtual destructor takes one slot, not two;
//   - overloads of one name take their slots in reverse order of declaration.
// The macros make the other Windows compilers produce the same layout.
#pragma once

/// Precedes the name of such an interface.
#if defined(_WIN32)
#define SYS_INTERFACE
#else
#define SYS_INTERFACE __attribute__((visibility("default")))
#endif

/// Declares two overloads of one name; first takes the lower slot.
#if defined(_MSC_VER)
#define SYS_OVERLOADS_IN_ORDER(first, second) \
  second;                                     \
  first
#else
#define SYS_OVERLOADS_IN_ORDER(first, second) \
  first;                                      \
  second
#endif

/// An interface uses both macros: the first at its beginning, the second at its end; its destructor takes slot 0.  On
/// Windows compilers that would use two slots, the first macro declares a function that does what Microsoft's
/// destructor does (bit 0 of flags: also free the object), and the second one the compiler's own destructor, behind the
/// last slot.  Classes that implement the interface and code that deletes objects see no difference.
#if defined(_WIN32) && !defined(_MSC_VER)
#define SYS_DESTRUCTOR_COMES_FIRST(Interface)      \
  virtual void* destroyFromTable(unsigned flags) { \
    if ((flags & 1) != 0) {                        \
      delete this;                                 \
    } else {                                       \
      this->~Interface();                          \
    }                                              \
    return this;                                   \
  }
#define SYS_DESTRUCTOR_COMES_LAST(Interface) virtual ~Interface() = default
#else
#define SYS_DESTRUCTOR_COMES_FIRST(Interface) virtual ~Interface() = default
/// See SYS_DESTRUCTOR_COMES_FIRST.
#define SYS_DESTRUCTOR_COMES_LAST(Interface) static_assert(true)
#endif
