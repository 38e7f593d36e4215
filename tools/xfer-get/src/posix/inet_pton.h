// Declares inet_pton.
#pragma once

#include <arpa/inet.h>
