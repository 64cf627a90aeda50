// A locale provider whose answer the test sets, to play a system locale change.
#pragma once

#include <mutex>
#include <utility>

#include "orvexd/platform/locale_provider.h"

namespace orvex::testing {

class FixedLocale final : public LocaleProvider {
 public:
  explicit FixedLocale(LocaleSnapshot initial = americanEnglish())
      : snapshot_(std::move(initial)) {}

  LocaleSnapshot currentLocale() const override {
    std::lock_guard lock(mutex_);
    return snapshot_;
  }
  void set(LocaleSnapshot value) {
    std::lock_guard lock(mutex_);
    snapshot_ = std::move(value);
  }

  // en_US, Los Angeles, US units and a 12-hour clock, languages en-US, fr, de, ja.
  static LocaleSnapshot americanEnglish() {
    LocaleSnapshot locale;
    locale.localeIdentifier = "en_US";
    locale.calendarIdentifier = "gregorian";
    locale.measurementSystem = MeasurementSystem::kUS;
    locale.hourCyclePattern = "h:mm a";
    locale.timeZoneName = "America/Los_Angeles";
    locale.preferredLanguages = {"en-US", "fr", "de", "ja"};
    locale.effectiveSystemLanguage = "en";
    locale.regionCode = "US";
    return locale;
  }

 private:
  mutable std::mutex mutex_;
  LocaleSnapshot snapshot_;
};

}  // namespace orvex::testing
