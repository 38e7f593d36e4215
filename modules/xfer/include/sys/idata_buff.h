// The byte buffer through which results cross to the host: the host makes the objects, the library resizes and fills
// them.  Knows nothing of where the bytes come from.
//
// A host derives a class of its own from IDataBuff and overrides every operation.  The library calls resize, data and
// size of a host's buffer and nothing else; what the others do is then between the host and itself.
//
// Layout:    The operations are declared in the order of the table below, and the order never changes: host and library
//            are built apart, often by different compilers, and meet only in this table.  On Windows it is the same
//            for every compiler.
//
//                slot  0  destructor              5  data       10  copyTo(std::wstring&)
//                      1  resize                  6  attach     11  copyTo(std::string&)
//                      2  clear                   7  takeFrom   12  toString
//                      3  assign(std::string)     8  release    13  size
//                      4  assign(bytes)           9  moveTo     14  empty
//
//            Elsewhere than on Windows the destructor takes two entries (one that frees the object, and one that does
//            not), so that an operation's entry is its slot + 1.
//            Slots 3, 10, 11 and 12 need the same std::string on both sides.  Slot 12 even needs the same compiler:
//            Microsoft passes the object first and then the place of the result, MinGW the other way round.
// Ownership: a block of bytes is obtained with malloc or realloc and given back with free, by the same C library on
//            both sides.  Whoever made a buffer object deletes it.
// Threads:   none of its own: one thread at a time uses a buffer.
// Errors:    only resize reports one.  Nothing throws but the operations that make a string, for lack of memory.
// Units:     lengths are bytes.
//
// A host without the C++ library defines XFER_NO_CXX_LIBRARY; the string types are then only declared.
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

class SYS_INTERFACE IDataBuff {
 public:
  SYS_DESTRUCTOR_COMES_FIRST(IDataBuff);

  /// Makes the length n.  Bytes up to the smaller of the two lengths are kept, new ones hold anything.  False for lack
  /// of memory; nothing has changed then.
  virtual bool resize(uint64_t n) = 0;

  /// Frees the block: no bytes, no block.
  virtual void clear() = 0;

  SYS_OVERLOADS_IN_ORDER(
      /// Replaces the content by a copy of text's bytes, as the next operation does.
      virtual void assign(const std::string& text) = 0,

      /// Replaces the content by a copy of n bytes at src, which must not lie in this buffer; with a null src it only
      /// makes the length n.  Reports no lack of memory: whoever may meet that calls resize first and looks.
      virtual void assign(const void* src, uint64_t n) = 0);

  /// The bytes, for reading and writing; null when there is no block.  Valid until the next operation that changes the
  /// length or the block.
  virtual uint8_t* data() = 0;

  /// Replaces the block by one that was obtained with malloc and is n bytes long; the buffer owns it from now on.  A
  /// null block changes nothing.
  virtual void attach(uint8_t* block, uint64_t n) = 0;

  /// Replaces the block by the one of other, which is left empty; nothing is copied.  A null other changes nothing.
  virtual void takeFrom(IDataBuff* other) = 0;

  /// Hands the block over to the caller, who frees it with free, and its length in *n; the buffer is left empty.  Null
  /// and 0 when there is no block.  n must not be null.
  virtual uint8_t* release(uint64_t* n) = 0;

  /// Replaces the block of other, which must be a sys::DataBuff (not checked), by this one's; this one is left empty.
  /// Returns other.
  virtual DataBuff* moveTo(IDataBuff* other) = 0;

  SYS_OVERLOADS_IN_ORDER(
      /// Makes out the bytes taken as UTF-16 code units in the machine's byte order, one wchar_t each; an odd last byte
      /// is dropped.  With less than two bytes out stays as it is.
      virtual void copyTo(std::wstring& out) = 0,

      /// Makes out the bytes; without any, out stays as it is.
      virtual void copyTo(std::string& out) = 0);

  /// The bytes; empty when there are none.
  virtual std::string toString() = 0;

  virtual uint64_t size() = 0;

  /// True when the length is 0.
  virtual bool empty() = 0;

  SYS_DESTRUCTOR_COMES_LAST(IDataBuff);
};

}  // namespace sys
