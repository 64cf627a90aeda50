// The records nested inside feedback: search results, sections, suggestions, rankings, card
// sections and punch-outs.
//
// Plain values with public fields. Each lists its fields in visit() for the D-Bus and archive
// forms (feedback_codec.h) and the upload form (feedback_upload_writer.h), under the key its
// upload JSON uses; fields without an upload key take their field name. Classes that stand for
// two classes of the client library keep which one in `recordClass` ("$class" in both forms).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvexd/model/feedback_tables.h"
#include "orvexd/model/feedback_upload_writer.h"

namespace orvex {

// The text of a result's title.
struct NBText {
  static constexpr std::array<std::string_view, 1> kClassNames = {"NBText"};
  std::optional<std::string> text;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("text", self.text);
  }
};

// Where a tap leads: the URLs to open, in order of preference. An ORVPunchout also names the
// action it performs.
struct NBPunchout {
  enum class Class : uint8_t { kNBPunchout, kORVPunchout };
  static constexpr std::array<std::string_view, 2> kClassNames = {"NBPunchout", "ORVPunchout"};

  Class recordClass = Class::kNBPunchout;
  std::optional<std::string> name;
  std::vector<std::string> urls;
  std::optional<std::string> actionTarget;  // ORVPunchout only

  // The first URL that is absolute (has a scheme), which is the one a tap opens.
  std::optional<std::string> preferredOpenableURL() const;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("name", self.name);
    v("urls", self.urls);
    v("actionTarget", self.actionTarget);
  }
};

// The daemon's own properties of a result from its back-end.
struct ORVCustomSearchResult {
  static constexpr std::array<std::string_view, 1> kClassNames = {"ORVCustomSearchResult"};
  std::optional<std::string> fbr;  // the back-end's feedback reference

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("fbr", self.fbr);
  }
};

struct NBSearchResult {
  static constexpr std::array<std::string_view, 1> kClassNames = {"NBSearchResult"};
  static constexpr FeedbackTable resultTypes() { return feedback_tables::kSearchResultTypes; }
  static constexpr FeedbackTable topHitKinds() { return feedback_tables::kTopHitKinds; }
  static constexpr uint32_t kTypeOrvex = 1;
  static constexpr uint32_t kTypeNSUserActivity = 4;
  // Results of outside search engines (google ... baidu).
  static constexpr uint32_t kFirstOutsideEngineType = 9;
  static constexpr uint32_t kLastOutsideEngineType = 14;
  // Written instead of the bundle identifier of a local application result.
  static constexpr std::string_view kLocalApplicationBundleId = "com.zelmor.application";

  std::optional<std::string> identifier;
  double rankingScore = 0;
  uint32_t type = 0;  // resultTypes()
  bool publiclyIndexable = false;
  uint32_t topHit = 0;  // topHitKinds()
  std::optional<std::string> sectionBundleIdentifier;
  std::optional<std::string> resultBundleId;
  std::optional<std::string> applicationBundleIdentifier;
  // One of the user's installed applications: its bundle identifier is never uploaded.
  bool isLocalApplicationResult = false;
  std::optional<ORVCustomSearchResult> customProperties;
  std::optional<nlohmann::json> localFeatures;
  std::optional<std::string> correctedQuery;
  bool staticCorrection = false;
  uint64_t queryId = 0;  // the client's query identifier the result answered
  std::optional<NBText> title;
  std::optional<NBPunchout> punchout;
  std::optional<NBPunchout> actionPunchout;  // the punch-out of the result's action button

  bool isOutsideEngineResult() const {
    return type >= kFirstOutsideEngineType && type <= kLastOutsideEngineType;
  }

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("id", self.identifier);
    v("score", self.rankingScore);
    v.enumeration("result_type", self.type, resultTypes());
    v("publicly_indexable", self.publiclyIndexable, upload::when(self.type == kTypeNSUserActivity));
    v.enumeration("top_hit", self.topHit, topHitKinds());
    v("section_bundle_id", self.sectionBundleIdentifier);
    v("bundle_id", self.resultBundleId, upload::by(self, uploadBundleId));
    v("applicationBundleIdentifier", self.applicationBundleIdentifier, upload::skip);
    v("isLocalApplicationResult", self.isLocalApplicationResult, upload::skip);
    // Results of the daemon's back-end always say their feedback reference, null when unknown.
    v("customProperties", self.customProperties,
      upload::as("fbr", &ORVCustomSearchResult::fbr)
          .when(self.customProperties || self.type == kTypeOrvex));
    v("local_features", self.localFeatures, upload::ifPresent);
    v("corrected_query", self.correctedQuery, upload::ifPresent);
    v("static_correction", self.staticCorrection);
    v("queryId", self.queryId, upload::skip);
    v("title", self.title, upload::skip);
    v("punchout", self.punchout, upload::skip);
    v("actionPunchout", self.actionPunchout, upload::skip);
  }

 private:
  // The result's bundle identifier, else its application's; that of a local application is
  // never disclosed.
  static void uploadBundleId(const NBSearchResult& result, FeedbackDictionary& d);
};

// The client query identifier of the first of `results`, 0 when there is none.
uint64_t firstResultQueryId(const std::optional<std::vector<NBSearchResult>>& results);

struct NBResultSection {
  static constexpr std::array<std::string_view, 1> kClassNames = {"NBResultSection"};
  std::optional<std::string> identifier;
  double rankingScore = 0;
  std::optional<std::string> bundleIdentifier;
  std::optional<std::vector<NBSearchResult>> results;

  // The client query identifier of the first result, 0 when there is none.
  uint64_t firstResultQueryId() const;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("id", self.identifier);
    v("score", self.rankingScore);
    v("bundle_id", self.bundleIdentifier);
    v("results", self.results);
  }
};

// How the ranker placed one result within its section.
struct NBResultRankingFeedback {
  static constexpr std::array<std::string_view, 1> kClassNames = {"NBResultRankingFeedback"};
  std::optional<NBSearchResult> result;
  int64_t localResultPosition = 0;
  std::optional<std::vector<NBSearchResult>> hiddenResults;
  std::optional<std::vector<NBSearchResult>> duplicateResults;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("result", self.result, upload::flatten);
    v("local_result_position", self.localResultPosition);
    v("hidden_results", self.hiddenResults, upload::ifPresent);
    v("duplicate_results", self.duplicateResults, upload::ifPresent);
  }
};

// How the ranker placed one section.
struct NBSectionRankingFeedback {
  static constexpr std::array<std::string_view, 1> kClassNames = {"NBSectionRankingFeedback"};
  std::optional<NBResultSection> section;
  int64_t localSectionPosition = 0;
  std::optional<std::vector<NBResultRankingFeedback>> results;

  // The section's keys come first; its "results" keeps its place with the ranked results.
  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("section", self.section, upload::flatten);
    v("local_section_position", self.localSectionPosition);
    v("results", self.results);
  }
};

// A suggested query. An ORVSearchSuggestion comes from the daemon's back-end and carries its
// feedback reference.
struct NBSearchSuggestion {
  enum class Class : uint8_t { kNBSearchSuggestion, kORVSearchSuggestion };
  static constexpr std::array<std::string_view, 2> kClassNames = {"NBSearchSuggestion",
                                                                  "ORVSearchSuggestion"};
  static constexpr FeedbackTable suggestionTypes() { return feedback_tables::kSuggestionTypes; }

  Class recordClass = Class::kNBSearchSuggestion;
  std::optional<std::string> identifier;
  std::optional<std::string> suggestion;  // the text shown
  double score = 0;
  uint32_t type = 0;                 // suggestionTypes()
  std::optional<std::string> query;  // the query the suggestion completes
  std::optional<std::string> fbr;    // ORVSearchSuggestion only

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("id", self.identifier);
    v("suggestion", self.suggestion);
    v("score", self.score);
    v.enumeration("suggestion_type", self.type, suggestionTypes());
    v("query", self.query, upload::skip);
    v("fbr", self.fbr, upload::when(self.recordClass == Class::kORVSearchSuggestion));
  }
};

// A section of a card; a description section is the expandable text of a card.
struct NBCardSection {
  enum class Class : uint8_t { kNBCardSection, kNBDescriptionCardSection };
  static constexpr std::array<std::string_view, 2> kClassNames = {"NBCardSection",
                                                                  "NBDescriptionCardSection"};
  Class recordClass = Class::kNBCardSection;
  std::optional<std::string> identifier;

  template <class V, class Self>
  static void visit(V& v, Self& self) {
    v("id", self.identifier);
  }
};

}  // namespace orvex
