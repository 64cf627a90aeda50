#include "orvexd/platform/system_change_monitor.h"
