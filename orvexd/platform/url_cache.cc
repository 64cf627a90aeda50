#include "orvexd/platform/url_cache.h"
