// Every feedback record class, by family. feedback_record.h says what a record is and does;
// NBFeedback's readers know each class here by its name.
#pragma once

#include "orvexd/model/feedback_record.h"
#include "orvexd/model/nb_engagement_feedback.h"
#include "orvexd/model/nb_error_custom_feedback.h"
#include "orvexd/model/nb_result_feedback.h"
#include "orvexd/model/nb_search_feedback.h"
#include "orvexd/model/orvex_session_feedback.h"
