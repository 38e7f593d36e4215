// All public headers of namespace xfer.
#pragma once

#include "xfer/download_job.h"
#include "xfer/fetch.h"
