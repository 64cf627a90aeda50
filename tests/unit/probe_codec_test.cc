#include "orvexd/platform/probe_codec.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

// What the helper prints reads back as it was; text from a misbehaving helper does not, whatever
// field is off.
TEST(ProbeCodec, ReadsBackWhatTheHelperPrintsAndNothingOdd) {
  LocaleSnapshot locale{"sr_Latn_RS@calendar=japanese",
                        "japanese",
                        MeasurementSystem::kUK,
                        "H時",
                        "America/Argentina/Buenos_Aires",
                        {"sr-Latn-RS", "en"},
                        "sr",
                        "RS"};
  const auto read = localeSnapshotFromJson(localeSnapshotJson(locale));
  ASSERT_TRUE(read);
  EXPECT_EQ(localeSnapshotJson(*read), localeSnapshotJson(locale));
  const std::string good = localeSnapshotJson(locale);
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    return localeSnapshotFromJson(text).has_value();
  };
  EXPECT_FALSE(replaced("\"RS\"", "\"R S\""));
  EXPECT_FALSE(replaced("\"japanese\",", "7,"));
  EXPECT_FALSE(replaced("\"UK\"", "\"imperial\""));
  EXPECT_FALSE(replaced("H時", "H\\n"));
  EXPECT_FALSE(replaced("[\"sr-Latn-RS\",\"en\"]", "[]"));
  EXPECT_FALSE(replaced("[\"sr-Latn-RS\",", "[[[[[\"x\"]]]],"));
  EXPECT_FALSE(replaced("\"sr\"", std::string("\"").append(200, 's').append("\"")));
  EXPECT_FALSE(localeSnapshotFromJson("{}"));
  EXPECT_FALSE(localeSnapshotFromJson(good.substr(0, good.size() - 1)));

  const InstalledApplicationLimits limits{.maxFiles = 2, .maxIdentifierBytes = 8};
  const InstalledApplicationList list{{{"org.a", "1.0"}, {"org.b", std::nullopt}}, 3};
  const auto apps = installedApplicationsFromJson(installedApplicationsJson(list), limits);
  ASSERT_TRUE(apps);
  EXPECT_EQ(apps->applications, list.applications);
  EXPECT_EQ(apps->skippedFiles, 3u);
  for (const InstalledApplicationList& bad : std::vector<InstalledApplicationList>{
           {{{"org.a", "1"}, {"org.b", "1"}, {"org.c", "1"}}, 0},  // more than maxFiles
           {{{"org.b", "1"}, {"org.a", "1"}}, 0},                  // out of order
           {{{"org.a", "1"}, {"org.a", "2"}}, 0},                  // twice
           {{{"org.a.too.long", "1"}}, 0},
           {{{"", "1"}}, 0},
           {{}, 4}}) {
    EXPECT_FALSE(installedApplicationsFromJson(installedApplicationsJson(bad), limits))
        << installedApplicationsJson(bad);
  }
  EXPECT_FALSE(installedApplicationsFromJson(R"({"applications":[{"id":"a","version":2}],
                                                 "skippedFiles":0})",
                                             limits));
}

}  // namespace
}  // namespace orvex
