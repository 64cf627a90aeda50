#include "orvexd/platform/http_types.h"
