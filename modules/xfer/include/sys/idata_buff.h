// The byte buffer that returns results to the host: the host creates the object, the library resizes and fills it.
// Knows nothing of where the bytes come from.
//
// A host derives its own class from IDataBuff and overrides every operation.  The library calls only resize, data and
// size of a host's buffer; the host may implement the others as it likes.
//
// Layout:    The vtable has the order below, which never changes: host and library are built separately, often by
//            different compilers.  On Windows it is the same for every compiler.
//
//                slot  0  destructor              5  data       10  copyTo(std::wstring&)
//                      1  resize                  6  attach     11  copyTo(std::string&)
//                      2  clear                   7  takeFrom   12  toString
//                      3  assign(std::string)     8  release    13  size
//                      4  assign(bytes)           9  moveTo     14  empty
//
//            On other systems than Windows the destructor takes two entries (with and without freeing the object), so
//            each later operation's entry is its slot + 1.
//            Slots 3, 10, 11 and 12 need the same std::string on both sides.  Slot 12 even needs the same compiler:
//            Microsoft passes the object before the address of the result, MinGW after it.
// Ownership: blocks come from malloc or realloc and go to free, in the same C library on both sides.  The side that
//            created a buffer object deletes it.
// Threads:   one thread at a time.
// Errors:    only resize reports one.  Operations that make a string throw std::bad_alloc without memory; no other
//            operation throws.
// Units:     lengths are bytes.
//
// Without the C++ standard library, define XFER_NO_CXX_LIBRARY; the string types are then only declared.
#pragma once

#include <stdint.h>

#include "sys/export.h"

#if defined(XFER_NO_CXX_LIBRARY)
namespace std {
template <class C>
struct char_traits;
template <class C>
class allocator;
template <class C, class Traits, class Allocator>
class basic_string;
using string = basic_string<char, char_traits<char>, allocator<char>>;
using wstring = basic_string<wchar_t, char_traits<wchar_t>, allocator<wchar_t>>;
}  // namespace std
#else
#include <string>
#endif

namespace sys {

class DataBuff;

/// A host's buffer, or one of xfer_bufferNew.
class SYS_INTERFACE IDataBuff {
 public:
  SYS_DESTRUCTOR_COMES_FIRST(IDataBuff);

  /// Sets the length to n.  Keeps the bytes up to the smaller length; new bytes are uninitialised.  False without
  /// memory; the buffer is then unchanged.
  virtual bool resize(uint64_t n) = 0;

  /// Frees the block; the buffer is empty.
  virtual void clear() = 0;

  SYS_OVERLOADS_IN_ORDER(
      /// Replaces the content with a copy of text's bytes, as the next operation does.
      virtual void assign(const std::string& text) = 0,

      /// Replaces the content with a copy of n bytes at src, which must not lie in this buffer; a null src only sets
      /// the length.  Does not report a lack of memory: call resize first and check its result.
      virtual void assign(const void* src, uint64_t n) = 0);

  /// The bytes, readable and writable; null without a block.  Valid until an operation changes the length or the block.
  virtual uint8_t* data() = 0;

  /// Replaces the block with one of n bytes from malloc and takes ownership of it.  A null block changes nothing.
  virtual void attach(uint8_t* block, uint64_t n) = 0;

  /// Takes other's block without copying and leaves other empty.  A null other changes nothing.
  virtual void takeFrom(IDataBuff* other) = 0;

  /// Returns the block, which the caller frees with free, and its length in *n; leaves the buffer empty.  Without a
  /// block: null and 0.  n must not be null.
  virtual uint8_t* release(uint64_t* n) = 0;

  /// Moves the block to other, which must be a sys::DataBuff (not checked), and leaves this buffer empty.  Returns
  /// other.
  virtual DataBuff* moveTo(IDataBuff* other) = 0;

  SYS_OVERLOADS_IN_ORDER(
      /// Sets out to the bytes read as UTF-16 code units in native byte order, one wchar_t each; drops an odd last
      /// byte.  With less than two bytes, out is unchanged.
      virtual void copyTo(std::wstring& out) = 0,

      /// Sets out to the bytes; without any, out is unchanged.
      virtual void copyTo(std::string& out) = 0);

  /// The bytes as a string.
  virtual std::string toString() = 0;

  /// The number of bytes.
  virtual uint64_t size() = 0;

  /// Whether there is no byte.
  virtual bool empty() = 0;

  SYS_DESTRUCTOR_COMES_LAST(IDataBuff);
};

}  // namespace sys
