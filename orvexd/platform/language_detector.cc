#include "orvexd/platform/language_detector.h"
