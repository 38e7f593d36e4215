// What a Microsoft compiler sees of the interfaces that cross between modules.  Its tables are printed when they are
// needed, for which there have to be classes of this file's own.
#define XFER_NO_CXX_LIBRARY
#include "keel/logger.h"
#include "sys/idata_buff.h"

struct Buffer : sys::IDataBuff {
  Buffer();
};
Buffer::Buffer() = default;

struct Logger : Keel::ILogger {
  Logger();
};
Logger::Logger() = default;
