// The answers of the search, more-results and card endpoints, built from the word list.
//
// The search endpoint answers three kinds of request: zero-keyword suggestions ("qtype=zkw"),
// lookups (a "context" or "ltype" item: the definition of "q" in an application's context) and
// searches (the completion of "q", WordNetCorpus::answer). The others are more results (the
// next page of the senses of "q") and cards (one sense of "q" in detail).
//
// Every answer but the search one names images as production answers do: under the image keys
// ("icon", "thumbnail", "glyph", "more_icons", "posters"...), at the top level, inside results
// and inside arrays, each by "url" (this server's /images route), by "id" (an identifier that
// the shipped bag's "resources" maps to an /images URL), or by both. The files named are icons
// of the Adwaita theme at several sizes. A request that carries the query item "missing_image"
// (any value) also gets a top-level "badge_image" whose file does not exist, so that fetching
// it gets 404.
//
// Answers depend on the request only, so tests can assert them.
#pragma once

#include <string_view>

#include "tools/orvex-backend/endpoint_registry.h"
#include "tools/orvex-backend/wordnet_corpus.h"

namespace orvex::backend {

// The answer to GET /search: a zero-keyword, lookup or search one. A null corpus (none could
// be loaded) gets 503 here and in the functions below; a request without the items it needs,
// 400. Replies are application/json with "status": "OK", or "ERROR" and a "reason".
EndpointReply answerSearchRequest(const WordNetCorpus* corpus, const EndpointRequest& request);

// GET /more?q=TEXT[&page=N]: page N (from 1; 2 when absent, the page after the search answer)
// of the completion's senses, kMaxResults a page.
EndpointReply answerMoreResults(const WordNetCorpus* corpus, const EndpointRequest& request);

// GET /card?q=TEXT[&sense=N]: sense N (from 1; 1 when absent) of the completion of TEXT; 404
// when TEXT completes to nothing or the lemma has fewer senses.
EndpointReply answerCard(const WordNetCorpus* corpus, const EndpointRequest& request);

}  // namespace orvex::backend
