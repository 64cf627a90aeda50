// The image fetcher: prefetches the images search answers name into the daemon's URL cache, and
// loads cached images for clients. Owned by the client state manager, which hands its two image
// calls on to it.
//
// Images are fetched to a file on the download session, and the file itself, moved into the
// cache's directory and mapped, becomes the cache entry; no image is ever copied into memory.
// A download longer than the cache would keep (5% of its disk tier) is cut off.
// An image the cache holds is not fetched again, and a URL is fetched once at a time: a fetch
// asked for while the same URL is under way waits for that one. At most kMaxFetchesInFlight
// URLs are under way at once; further ones are refused, logged and counted
// ("com.zelmor.orvexd.images.fetchesrefused").
//
// Clients load images only from valid image hosts, the hosts answers named images on (and,
// while none is known, the bag's search host and first resource host). The set only grows, up
// to kMaxImageHosts; hosts beyond are counted ("com.zelmor.orvexd.images.hostsrefused").
//
// Threading: every call may be made from any thread, and none waits for the network. The hosts
// queue ("com.zelmor.orvexd.imageHostsQueue": shared reads, exclusive writes) owns
// validImageHosts_; the fetch queue ("com.zelmor.orvexd.imageFetchQueue") owns inFlight_ and
// ends the loads. Fetch completions run on the download session's callback queue.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "orvexd/base/http_types.h"
#include "orvexd/model/interfaces/client_state_manager.h"
#include "orvexd/platform/reader_writer_queue.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;
class ORVBag;
class UrlCache;
class WaitGroup;
struct HttpDownloadResult;
class NBStartNetworkSearchFeedback;

class ImageFetcher : public std::enable_shared_from_this<ImageFetcher> {
 public:
  static constexpr size_t kMaxImageHosts = 1024;
  static constexpr size_t kMaxFetchesInFlight = 256;
  // The longest a load waits, whatever deadline its caller gives.
  static constexpr Duration kLongestLoad = std::chrono::seconds(60);
  // Start-of-request records of image fetches: trigger event 15 ("image_load") at endpoint 7
  // ("orvex_image").
  static constexpr uint32_t kImageLoadTriggerEvent = 15;
  static constexpr uint32_t kImageEndpoint = 7;

  // Must be owned by a shared_ptr before the first call.
  explicit ImageFetcher(Assembly& assembly);

  void processImagesFromResponse(const nlohmann::json& answer, std::shared_ptr<const ORVBag> bag);
  void loadImages(std::vector<ImageDescription> images, MonotonicTime deadline,
                  ClientStateManager::ImagesCompletion completion);

 private:
  // The groups of the loads waiting for one URL's fetch.
  using Waiters = std::vector<std::shared_ptr<WaitGroup>>;

  UrlCache* cache() const;
  void addValidImageHosts(std::set<std::string> hosts);
  // Fetches `url` into the cache unless it is there; `group`, when given, is left once the fetch
  // has ended.
  void fetchImageURL(const std::string& url, std::optional<Duration> timeout,
                     const std::shared_ptr<WaitGroup>& group);
  // On the fetch queue.
  void startFetch(const HttpRequest& request, const std::shared_ptr<WaitGroup>& group);
  void fetchEnded(const std::string& url);
  // On the download session's callback queue; the size of what was cached.
  void fetchCompleted(const HttpRequest& request,
                      const std::shared_ptr<const NBStartNetworkSearchFeedback>& start,
                      HttpDownloadResult result);
  int64_t cacheImage(const HttpRequest& request, const HttpResponse& response,
                     const std::string& location);
  LoadedImages cachedImages(const std::vector<ImageDescription>& images, const ORVBag& bag) const;

  Assembly& assembly_;
  ReaderWriterQueue<std::set<std::string>> validImageHosts_;  // "...imageHostsQueue"
  SerialQueue fetchQueue_;                                    // "...imageFetchQueue"
  std::map<std::string, Waiters> inFlight_;                   // fetchQueue_: URLs under way
};

}  // namespace orvex
