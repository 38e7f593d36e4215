// What an interface needs that separately built modules share: type information that they agree on, and the same
// operation at the same position whatever compiler built them.
//
// On Windows the positions are Microsoft's, which differ in two ways from the order of declaration that every other
// compiler follows:
//   - a virtual destructor takes one position; elsewhere it takes two;
//   - overloads of one name take their positions in the reverse of their order.
// The other compilers for Windows (MinGW's) follow the order of declaration there too, so that they have to be told.
#pragma once

/// Goes before the name of such an interface.
#if defined(_WIN32)
#define SYS_INTERFACE
#else
#define SYS_INTERFACE __attribute__((visibility("default")))
#endif

/// Declares two overloads of one name; the first one comes first in the table.
#if defined(_MSC_VER)
#define SYS_OVERLOADS_IN_ORDER(first, second) \
  second;                                     \
  first
#else
#define SYS_OVERLOADS_IN_ORDER(first, second) \
  first;                                      \
  second
#endif

/// The first operation of an interface is its destructor, and an interface says so twice: at its beginning and at its
/// end.  Where the compiler would use two positions, the first line declares an operation that does what Microsoft's
/// destructor does (bit 0 of flags: free the object too), and the second one the compiler's own destructor, out of the
/// way behind the last position.  For whoever implements, owns or deletes an object there is no difference.
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
#define SYS_DESTRUCTOR_COMES_LAST(Interface) static_assert(true)
#endif
