// The fixed string tables that name every enumerated value of the feedback records on the wire.
//
// A value is an index into its table. Every name is written exactly as it stands here, odd
// spellings and all (the session-end reasons carry spaces, unlike every other table). The
// tables are constant data, so any thread may read them at any time.
//
// Lookups never index out of bounds: the readers of the record forms refuse values outside a
// table, and FeedbackTable::nameAt() answers nothing for a value that a record built in code
// holds by mistake, which the encoders then write as JSON null.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace orvex {

// One table: a view of its names in index order.
class FeedbackTable {
 public:
  template <std::size_t N>
  constexpr FeedbackTable(const std::array<std::string_view, N>& names) : names_(names) {}

  constexpr std::span<const std::string_view> names() const { return names_; }
  // The table of the first `count` names.
  constexpr FeedbackTable first(std::size_t count) const {
    return FeedbackTable(names_.first(count));
  }
  constexpr std::size_t size() const { return names_.size(); }
  constexpr bool contains(uint64_t value) const { return value < names_.size(); }
  // The name of `value`, or nothing when the table has no such entry.
  constexpr std::optional<std::string_view> nameAt(uint64_t value) const {
    if (!contains(value)) return std::nullopt;
    return names_[value];
  }

 private:
  constexpr explicit FeedbackTable(std::span<const std::string_view> names) : names_(names) {}

  std::span<const std::string_view> names_;
};

// The feedback kinds, the values of "type". NBFeedback::type() answers one of these.
enum class NBFeedbackType : uint32_t {
  kVisibleResults = 0,
  kNetworkSearchStart = 1,
  kNetworkSearchEnd = 2,
  kLocalSearchStart = 3,
  kLocalSearchEnd = 4,
  kSearchViewAppear = 5,
  kSearchViewDisappear = 6,
  kRankSections = 7,
  kResultEngagement = 8,
  kVisibleCard = 9,
  kCardEngagement = 10,
  kError = 11,
  kSuggestionEngagement = 12,
  kCardViewDisappear = 13,
  kSearchStart = 14,
  kSearchEnd = 15,
  kVisibleSuggestions = 16,
  kCustomUnknown = 17,
  kCustomCrowdsourcing = 18,
  kCustomRoamerAutofill = 19,
  kCustomGlanceResultFeatures = 20,
  kUnknown = 21,
  kResultsReceivedAfterTimeout = 22,
  kLateSectionsAppended = 23,
  kClearInput = 24,
  kSessionEnd = 25,
  kSkipOrvexSearch = 26,
  kSectionEngagement = 27,
  kVisibleSectionHeader = 28,
  kSessionMissingResults = 29,
  kSessionMissingSuggestions = 30,
  kDidGoToSite = 31,
  kConnectionInvalidated = 32,
};

namespace feedback_tables {

inline constexpr std::array<std::string_view, 33> kFeedbackTypeNames = {
    "visible_results",
    "network_search_start",
    "network_search_end",
    "local_search_start",
    "local_search_end",
    "search_view_appear",
    "search_view_disappear",
    "rank_sections",
    "result_engagement",
    "visible_card",
    "card_engagement",
    "error",
    "suggestion_engagement",
    "card_view_disappear",
    "search_start",
    "search_end",
    "visible_suggestions",
    "custom_unknown",
    "custom_crowdsourcing",
    "custom_roamer_autofill",
    "custom_glance_result_features",
    "unknown",
    "results_received_after_timeout",
    "late_sections_appended",
    "clear_input",
    "session_end",
    "skip_orvex_search",
    "section_engagement",
    "visible_section_header",
    "session_missing_results",
    "session_missing_suggestions",
    "did_go_to_site",
    "connection_invalidated",
};

// A custom record's kind, by its custom type.
inline constexpr std::array<NBFeedbackType, 4> kCustomFeedbackTypes = {
    NBFeedbackType::kCustomUnknown,
    NBFeedbackType::kCustomRoamerAutofill,
    NBFeedbackType::kCustomCrowdsourcing,
    NBFeedbackType::kCustomGlanceResultFeatures,
};

inline constexpr std::array<std::string_view, 8> kSessionEndReasons = {
    "no previous session", "external request", "session idle",        "max session time passed",
    "guid changed",        "critical memory",  "engagement received", "file size limit",
};

inline constexpr std::array<std::string_view, 27> kSearchViewAppearEvents = {
    "unknown",
    "swipe_down",
    "today_view",
    "lock_screen",
    "breadcrumb",
    "keyboard_shortcut",
    "mouse_click_on_menu",
    "app_launch",
    "new_tab",
    "tap_to_input",
    "new_window",
    "click",
    "tab_switch",
    "orb",
    "contextual_menu",
    "lookup_hint_tap",
    "lookup_tap",
    "swipe_up",
    "swipe_left",
    "swipe_right",
    "start_composing",
    "find_popular_items",
    "pull_down_home_screen",
    "notification_center",
    "partial_pull_down",
    "unlock_device",
    "did_enter_foreground",
};

inline constexpr std::array<std::string_view, 25> kSearchViewDisappearEvents = {
    "unknown",
    "killed",
    "home_button",
    "task_switcher",
    "cancel",
    "escape",
    "close_window_by_keyboard",
    "close_window_by_mouse",
    "minimize_window_by_keyboard",
    "minimize_window_by_mouse",
    "switched_to_other_app",
    "quit_app",
    "lock_button",
    "click_notification_banner",
    "phone_call",
    "lost_focus",
    "done",
    "swipe_down",
    "swipe_up",
    "swipe_left",
    "swipe_right",
    "share_button",
    "device_idle",
    "did_enter_background",
    "go_to_site",
};

inline constexpr std::array<std::string_view, 6> kCardViewDisappearEvents = {
    "unknown", "back", "swipe", "pop", "done", "replaced",
};

inline constexpr std::array<std::string_view, 20> kSearchStartTriggers = {
    "unknown",
    "new_character",
    "ime_commit",
    "backspace",
    "voice_search",
    "dictation",
    "copy_and_paste",
    "drag_and_drop",
    "suggestion",
    "prefetch",
    "partial_suggestion",
    "lookup",
    "cross_button",
    "show_more",
    "card",
    "image_load",
    "bag",
    "unlock_device",
    "correction",
    "warm",
};

inline constexpr std::array<std::string_view, 13> kEndpointTypes = {
    "unknown",     "orvex",  "google", "yahoo",     "bing",       "duckduckgo", "orvex_search",
    "orvex_image", "yandex", "baidu",  "orvex_bag", "orvex_card", "orvex_warm",
};

inline constexpr std::array<std::string_view, 3> kLookupSelectionTypes = {
    "lookup_default",
    "lookup_explicit",
    "lookup_hint_tap",
};

inline constexpr std::array<std::string_view, 7> kLocalIndexTypes = {
    "unknown",          "glance",         "calculator",        "core_tandem",
    "roamer_bookmarks", "roamer_history", "lookup_dictionary",
};

inline constexpr std::array<std::string_view, 15> kSearchResultTypes = {
    "unknown",
    "orvex",
    "local",
    "core_glance",
    "ns_user_activity",
    "roamer_tophit",
    "calculator",
    "conversion",
    "dictionary_definition",
    "google",
    "yahoo",
    "bing",
    "duckduckgo",
    "yandex",
    "baidu",
};

inline constexpr std::array<std::string_view, 3> kTopHitKinds = {
    "tophit_no",
    "tophit_should_be",
    "tophit_must_be",
};

inline constexpr std::array<std::string_view, 15> kVisibleResultsTriggers = {
    "unknown",   "result_list_updated", "scroll",        "show_more", "peek",
    "pop",       "show_less",           "card_swipe",    "click",     "view_resized",
    "scroll_up", "scroll_down",         "resume_search", "arrow_up",  "arrow_down",
};

inline constexpr std::array<std::string_view, 14> kResultEngagementTriggers = {
    "unknown",
    "enter",
    "tap",
    "click",
    "double_click",
    "peek",
    "pop",
    "reveal",
    "arrow_up",
    "arrow_down",
    "three_fingers_tap",
    "swipe",
    "forced_after_list_update",
    "shortcut",
};

inline constexpr std::array<std::string_view, 10> kResultEngagementDestinations = {
    "unknown",         "card",
    "punchout",        "none",
    "insert",          "find_on_page",
    "last_search",     "maps_card",
    "songvault_sheet", "hosted_html_page",
};

inline constexpr std::array<std::string_view, 7> kResultEngagementActionTargets = {
    "unknown", "directions", "call", "message", "play", "view", "open",
};

// A card section is engaged the ways a result is, short of the last four.
inline constexpr FeedbackTable kCardSectionEngagementTriggers =
    FeedbackTable(kResultEngagementTriggers).first(10);

inline constexpr std::array<std::string_view, 5> kCardTypes = {
    "unknown", "normal", "maps", "songvault_sheet", "hosted_html_page",
};

inline constexpr std::array<std::string_view, 24> kCardSectionActionTargets = {
    "unknown",
    "body",
    "phone",
    "home_page",
    "address",
    "directions_to_here",
    "directions_from_here",
    "business_photo",
    "business_review",
    "write_a_review",
    "more_info",
    "report_a_problem",
    "preview",
    "details",
    "play",
    "buy",
    "rent",
    "artist",
    "reviews",
    "related",
    "more",
    "trailer",
    "season",
    "episode",
};

inline constexpr std::array<std::string_view, 22> kMapCardFeedbackTypes = {
    "unknown",
    "phone_number",
    "website",
    "add_contact",
    "share",
    "directions_to_here",
    "directions_from_here",
    "dismissed",
    "report_a_problem",
    "edit_contact",
    "delete_contact",
    "flyover_tour",
    "all_photos",
    "photo",
    "add_photo",
    "all_reviews",
    "review",
    "write_review",
    "deal",
    "checkin",
    "more_info",
    "postal_address",
};

inline constexpr std::array<std::string_view, 6> kStoreProductPageResults = {
    "canceled_product_page",      "closed_product_page", "product_page_download_finished",
    "user_hit_goto_store_button", "user_purchased_item", "user_hit_custom_right_bar_button",
};

inline constexpr std::array<std::string_view, 4> kSuggestionTypes = {
    "unknown",
    "orvex",
    "proactive",
    "recents",
};

inline constexpr std::array<std::string_view, 4> kClearInputTriggers = {
    "unknown",
    "cross_button",
    "cut",
    "backspace",
};

inline constexpr std::array<std::string_view, 7> kSkipSearchReasons = {
    "unknown",
    "less_than_minimum_query_length",
    "bag_disabled",
    "bag_fetch_failed",
    "cache_hit",
    "empty_query_input",
    "query_input_with_uri_scheme_prefix",
};

inline constexpr std::array<std::string_view, 4> kSectionEngagementTriggers = {
    "unknown",
    "search_in_app",
    "show_more",
    "show_less",
};

inline constexpr std::array<std::string_view, 4> kSectionHeaderTypes = {
    "unknown",
    "search_in_app",
    "show_more",
    "normal",
};

}  // namespace feedback_tables

// The name of a feedback kind ("visible_results", ...).
constexpr std::string_view feedbackTypeName(NBFeedbackType type) {
  return feedback_tables::kFeedbackTypeNames[static_cast<uint32_t>(type)];
}

}  // namespace orvex
