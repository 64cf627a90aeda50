#include "orvexd/platform/locale_provider.h"
