#include "orvexd/platform/location_provider.h"
