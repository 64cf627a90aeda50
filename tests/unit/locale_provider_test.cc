#include "orvexd/platform/locale_provider.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using testing::ScopedEnv;

// Clears every variable the provider reads, then sets the given ones, for the life of the test.
class LocaleEnvironment {
 public:
  LocaleEnvironment() {
    for (const char* name :
         {"LC_ALL", "LC_MESSAGES", "LANG", "LC_MEASUREMENT", "LC_TIME", "LANGUAGE", "TZ"}) {
      cleared_.push_back(std::make_unique<ScopedEnv>(name, std::nullopt));
    }
  }
  void set(const char* name, std::optional<std::string> value) {
    cleared_.push_back(std::make_unique<ScopedEnv>(name, std::move(value)));
  }
  // Sets `name` and answers the locale the provider reads then.
  LocaleSnapshot with(const char* name, std::optional<std::string> value) {
    set(name, std::move(value));
    return provider_->currentLocale();
  }

 private:
  std::unique_ptr<LocaleProvider> provider_ = makeSystemLocaleProvider();
  std::vector<std::unique_ptr<ScopedEnv>> cleared_;
};

// The hour symbols of a date pattern, without its quoted literals: "HH 'Uhr'" → "HH".
std::string hourSymbols(const std::string& pattern) {
  std::string symbols;
  bool quoted = false;
  for (char c : pattern) {
    if (c == '\'') {
      quoted = !quoted;
    } else if (!quoted && (c == 'h' || c == 'H' || c == 'k' || c == 'K')) {
      symbols += c;
    }
  }
  return symbols;
}

TEST(LocaleProviderTest, ReadsTheLocaleFromThePosixVariablesInTheirOrder) {
  LocaleEnvironment env;
  env.set("LANG", "de_DE.UTF-8@euro");
  LocaleSnapshot snapshot = env.with("TZ", "Europe/Berlin");
  EXPECT_EQ(snapshot.localeIdentifier, "de_DE");
  EXPECT_EQ(snapshot.regionCode, "DE");
  EXPECT_EQ(snapshot.effectiveSystemLanguage, "de");
  EXPECT_EQ(snapshot.measurementSystem, MeasurementSystem::kMetric);
  EXPECT_EQ(hourSymbols(snapshot.hourCyclePattern), "HH");
  EXPECT_EQ(snapshot.calendarIdentifier, "gregorian");
  EXPECT_EQ(snapshot.preferredLanguages, std::vector<std::string>{"de-DE"});

  // LC_MESSAGES overrides LANG; LC_ALL overrides both. The environment is read on each call.
  snapshot = env.with("LC_MESSAGES", "en_US.UTF-8");
  EXPECT_EQ(snapshot.localeIdentifier, "en_US");
  EXPECT_EQ(snapshot.regionCode, "US");
  snapshot = env.with("LC_ALL", "fr_CA.UTF-8");
  EXPECT_EQ(snapshot.localeIdentifier, "fr_CA");
  EXPECT_EQ(snapshot.effectiveSystemLanguage, "fr");
  // An empty variable counts as unset.
  EXPECT_EQ(env.with("LC_ALL", "").localeIdentifier, "en_US");

  // Scripts from the name or from a modifier; keywords from a modifier.
  snapshot = env.with("LC_MESSAGES", "zh_Hans_CN.UTF-8");
  EXPECT_EQ(snapshot.localeIdentifier, "zh_Hans_CN");
  EXPECT_EQ(snapshot.preferredLanguages, std::vector<std::string>{"zh-Hans-CN"});
  EXPECT_EQ(env.with("LC_MESSAGES", "sr_RS.UTF-8@latin").localeIdentifier, "sr_Latn_RS");
  snapshot = env.with("LC_MESSAGES", "ja_JP.UTF-8@calendar=japanese");
  EXPECT_EQ(snapshot.calendarIdentifier, "japanese");
  EXPECT_EQ(snapshot.regionCode, "JP");
  EXPECT_EQ(env.with("LC_MESSAGES", "th_TH.UTF-8").calendarIdentifier, "buddhist");
}

TEST(LocaleProviderTest, MeasurementAndTimeFollowTheirOwnCategories) {
  LocaleEnvironment env;
  env.set("LANG", "en_US.UTF-8");
  env.set("LC_MEASUREMENT", "en_GB.UTF-8");
  LocaleSnapshot snapshot = env.with("LC_TIME", "de_DE.UTF-8");
  EXPECT_EQ(snapshot.measurementSystem, MeasurementSystem::kUK);
  EXPECT_EQ(hourSymbols(snapshot.hourCyclePattern), "HH");
  EXPECT_EQ(snapshot.localeIdentifier, "en_US");
  // A region-less locale finds its likely region: French → France → metric.
  EXPECT_EQ(env.with("LC_MEASUREMENT", "fr").measurementSystem, MeasurementSystem::kMetric);
  // LC_ALL decides every category.
  snapshot = env.with("LC_ALL", "en_US.UTF-8");
  EXPECT_EQ(snapshot.measurementSystem, MeasurementSystem::kUS);
  EXPECT_EQ(hourSymbols(snapshot.hourCyclePattern), "h");
}

TEST(LocaleProviderTest, TheCLocaleAndGarbageReadAsEnglishWithoutRegion) {
  for (const std::optional<std::string>& value : std::vector<std::optional<std::string>>{
           std::nullopt, "C", "POSIX", "C.UTF-8", "", "garbage!!", "de_", "de__DE", "_DE",
           "\xff\xfe", "de_DE.UTF-8@=x"}) {
    const LocaleSnapshot snapshot = LocaleEnvironment().with("LANG", value);
    SCOPED_TRACE(value.value_or("(unset)"));
    EXPECT_EQ(snapshot.localeIdentifier, "en");
    EXPECT_EQ(snapshot.regionCode, "");
    EXPECT_EQ(snapshot.effectiveSystemLanguage, "en");
    EXPECT_EQ(snapshot.preferredLanguages, std::vector<std::string>{"en"});
    // "en" without a region is maximised to en_US before its measurement system is looked up.
    EXPECT_EQ(snapshot.measurementSystem, MeasurementSystem::kUS);
    EXPECT_EQ(snapshot.calendarIdentifier, "gregorian");
    EXPECT_FALSE(snapshot.hourCyclePattern.empty());
  }
}

TEST(LocaleProviderTest, LanguagesComeFromLanguageWithoutJunkAndTheZoneFromTzOrTheHost) {
  LocaleEnvironment env;
  env.set("LANG", "de_DE.UTF-8");
  LocaleSnapshot snapshot = env.with("LANGUAGE", "pt_BR:::fr:C:pt_BR.UTF-8:!!:en_GB:fr");
  EXPECT_EQ(snapshot.preferredLanguages, (std::vector<std::string>{"pt-BR", "fr", "en-GB"}));
  // The interface language stays that of the locale.
  EXPECT_EQ(snapshot.effectiveSystemLanguage, "de");

  EXPECT_EQ(env.with("LANGUAGE", ":!!:").preferredLanguages, std::vector<std::string>{"de-DE"});

  EXPECT_EQ(env.with("TZ", ":Asia/Tokyo").timeZoneName, "Asia/Tokyo");
  EXPECT_EQ(env.with("TZ", "America/New_York").timeZoneName, "America/New_York");
  EXPECT_EQ(env.with("TZ", ":/usr/share/zoneinfo/Europe/Paris").timeZoneName, "Europe/Paris");
  EXPECT_EQ(env.with("TZ", "").timeZoneName, "UTC");

  // Names ICU does not know fall back to the host zone, which is always some known zone.
  for (const char* bad : {"Mars/Olympus_Mons", "CET-1CEST,M3.5.0,M10.5.0/3", "\xff", ":"}) {
    const std::string name = env.with("TZ", bad).timeZoneName;
    EXPECT_FALSE(name.empty()) << bad;
    EXPECT_NE(name, "Etc/Unknown") << bad;
    EXPECT_NE(name, "Mars/Olympus_Mons");
  }
}

}  // namespace
}  // namespace orvex
