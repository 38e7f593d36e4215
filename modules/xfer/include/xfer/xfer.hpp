// All public headers of namespace xfer.  xfer_errorText of xfer/xfer.h has words for its numbers.
#pragma once

#include "xfer/download_job.h"
#include "xfer/fetch.h"
