// Every feedback record class, by family, and the list of them all. feedback_record.h says what
// a record is and does; NBFeedback's readers know each class of the list by its name.
#pragma once

#include "orvexd/model/feedback_record.h"
#include "orvexd/model/nb_engagement_feedback.h"
#include "orvexd/model/nb_result_feedback.h"
#include "orvexd/model/nb_search_feedback.h"
#include "orvexd/model/orvex_session_feedback.h"

namespace orvex {

template <class... Records>
struct FeedbackRecordClasses {};

// A class missing here cannot be read from either form.
using AllFeedbackRecordClasses = FeedbackRecordClasses<
    NBFeedback, NBStartSearchFeedback, NBStartNetworkSearchFeedback,
    ORVLookupStartNetworkSearchFeedback, NBStartLocalSearchFeedback, NBEndSearchFeedback,
    NBEndNetworkSearchFeedback, ORVEndNetworkSearchFeedback, NBEndLocalSearchFeedback,
    ORVSkipSearchFeedback, ORVCacheHitFeedback, NBVisibleResultsFeedback,
    NBResultsReceivedAfterTimeoutFeedback, NBLateSectionsAppendedFeedback, NBRankingFeedback,
    ORVRankerFeedback, NBVisibleSuggestionsFeedback, NBVisibleSectionHeaderFeedback,
    NBVisibleCardFeedback, NBResultEngagementFeedback, NBCardSectionEngagementFeedback,
    NBMapsCardSectionEngagementFeedback, NBStoreCardSectionEngagementFeedback,
    NBSuggestionEngagementFeedback, NBSectionEngagementFeedback, NBDidGoToSiteFeedback,
    NBSearchViewAppearFeedback, NBSearchViewDisappearFeedback, NBCardViewDisappearFeedback,
    NBClearInputFeedback, NBErrorFeedback, NBCustomFeedback, OrvexSessionEndFeedback,
    OrvexSessionMissingResults, OrvexSessionMissingSuggestions, OrvexConnectionInvalidated>;

}  // namespace orvex
