#include "tests/support/loopback_http_server.h"
