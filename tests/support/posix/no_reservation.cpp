// Lets tests have files of many gigabytes that take next to no space: a program that is linked with this (see
// xfer_reserve_nothing) runs on a file system that cannot reserve, where a file's size is all that is set.
#include <sys/types.h>

#include <cerrno>

extern "C" int __wrap_fallocate(int /*descriptor*/, int /*mode*/, off_t /*offset*/, off_t /*length*/) {
  errno = EOPNOTSUPP;
  return -1;
}
