#include "orvexd/platform/http_session.h"
