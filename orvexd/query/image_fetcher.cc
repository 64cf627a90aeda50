#include "orvexd/query/image_fetcher.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/base/unique_fd.h"
#include "orvexd/feedback/client_session_manager.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/bag_controller.h"
#include "orvexd/model/nb_feedback.h"
#include "orvexd/model/orvex_feedback.h"
#include "orvexd/network/network_feedback.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/process_transaction.h"
#include "orvexd/platform/url_cache.h"
#include "orvexd/platform/wait_group.h"
#include "orvexd/query/image_enumeration.h"

namespace orvex {

namespace {

const OrvexLog& imagesLog() { return OrvexLogForCategory(kOrvexLogImages); }

std::optional<Duration> requestTimeout(const ORVBag& bag) {
  const auto seconds = bag.timeoutIntervalForRequest();
  if (!seconds) return std::nullopt;
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(*seconds));
}

// The hosts clients may load from while no answer has named any: the bag's first resource
// host and its search host.
std::set<std::string> seedHosts(const ORVBag& bag) {
  std::vector<std::string> urls;
  if (const auto resources = bag.resources(); !resources.empty()) {
    urls.push_back(resources.begin()->second);
  }
  if (auto search = bag.searchURL()) urls.push_back(std::move(*search));
  std::set<std::string> hosts;
  for (const auto& url : urls) {
    if (const auto parsed = parseImageUrl(url); parsed && !parsed->host.empty()) {
      hosts.insert(parsed->host);
    }
  }
  return hosts;
}

// A load's ending, which the deadline and the end of its fetches race for; whichever comes
// first answers. Touched only on the fetch queue.
struct LoadEnding {
  ClientStateManager::ImagesCompletion completion;
  std::vector<ImageDescription> images;
  std::shared_ptr<const ORVBag> bag;
  TimerHandle deadline;
  bool ended = false;
};

}  // namespace

ImageFetcher::ImageFetcher(Assembly& assembly)
    : assembly_(assembly),
      validImageHosts_(kORVImageHostsQueueName, *assembly.workerPool, *assembly.clock),
      fetchQueue_(kORVImageFetchQueueName, *assembly.workerPool, *assembly.clock) {}

UrlCache* ImageFetcher::cache() const {
  return assembly_.urlSession ? assembly_.urlSession->configuration().urlCache.get() : nullptr;
}

void ImageFetcher::addValidImageHosts(std::set<std::string> hosts) {
  if (hosts.empty()) return;
  const size_t refused = validImageHosts_.write([&hosts](std::set<std::string>& valid) {
    size_t over = 0;
    for (auto& host : hosts) {
      if (valid.size() < kMaxImageHosts) {
        valid.insert(host);
      } else if (!valid.contains(host)) {
        ++over;
      }
    }
    return over;
  });
  if (refused > 0) {
    imagesLog().error("%lu image hosts not remembered: %lu are known already",
                      static_cast<unsigned long>(refused),
                      static_cast<unsigned long>(kMaxImageHosts));
    OrvexDiagnosticDataReporter::addValueForScalarKey(static_cast<int64_t>(refused),
                                                      kORVCounterImageHostsRefused);
  }
}

void ImageFetcher::processImagesFromResponse(const nlohmann::json& answer,
                                             std::shared_ptr<const ORVBag> bag) {
  if (!bag) return;
  std::set<std::string> hosts;
  ImageFetchOrder order;
  enumerateImagesInResponse(answer, [&](const nlohmann::json& image) {
    collectOrderedImages(*bag, image, &hosts, order);
  });
  addValidImageHosts(std::move(hosts));
  std::vector<std::string> urls = order.urls();
  if (urls.size() > kMaxFetchesInFlight) {
    imagesLog().error("an answer names %lu images: fetching the first %lu",
                      static_cast<unsigned long>(urls.size()),
                      static_cast<unsigned long>(kMaxFetchesInFlight));
    OrvexDiagnosticDataReporter::addValueForScalarKey(
        static_cast<int64_t>(urls.size() - kMaxFetchesInFlight), kORVCounterImageFetchesRefused);
    urls.resize(kMaxFetchesInFlight);
  }
  const auto timeout = requestTimeout(*bag);
  for (const auto& url : urls) fetchImageURL(url, timeout, nullptr);
}

void ImageFetcher::loadImages(std::vector<ImageDescription> images, MonotonicTime deadline,
                              ClientStateManager::ImagesCompletion completion) {
  auto bag = assembly_.bagController ? assembly_.bagController->currentBag() : nullptr;
  if (!bag) {
    completion({});
    return;
  }
  ImageFetchOrder order;
  for (const auto& image : images) collectOrderedImages(*bag, image, nullptr, order);
  auto group = std::make_shared<WaitGroup>(*assembly_.clock);
  if (const std::vector<std::string> urls = order.urls(); !urls.empty()) {
    auto hosts = validImageHosts_.read([](const std::set<std::string>& valid) { return valid; });
    if (hosts.empty()) {
      hosts = seedHosts(*bag);
      addValidImageHosts(hosts);
    }
    const auto timeout = requestTimeout(*bag);
    for (const auto& url : urls) {
      const auto parsed = parseImageUrl(url);  // every collected URL parses, with a host
      if (parsed->scheme != "http" && parsed->scheme != "https") {
        imagesLog().fault("loadImage with invalid scheme: %@", url);
      } else if (!hosts.contains(parsed->host)) {
        imagesLog().fault("loadImage with invalid host: %@", url);
      } else {
        fetchImageURL(url, timeout, group);
      }
    }
  }
  const Duration wait = std::clamp<Duration>(deadline - assembly_.clock->monotonicNow(),
                                             Duration::zero(), kLongestLoad);
  auto ending = std::make_shared<LoadEnding>();
  ending->completion = std::move(completion);
  ending->images = std::move(images);
  ending->bag = std::move(bag);
  std::weak_ptr<ImageFetcher> weakSelf = weak_from_this();
  auto end = [weakSelf, ending] {
    if (std::exchange(ending->ended, true)) return;
    ending->deadline.cancel();
    auto self = weakSelf.lock();
    ending->completion(self ? self->cachedImages(ending->images, *ending->bag) : LoadedImages());
  };
  // Both endings are set up on the fetch queue, where they run, so that neither can come before
  // the other is in place.
  fetchQueue_.async([weakSelf, ending, group, wait, end] {
    auto self = weakSelf.lock();
    if (!self) return;
    ending->deadline = self->fetchQueue_.after(wait, end);
    group->notify(self->fetchQueue_, end);
  });
}

void ImageFetcher::fetchImageURL(const std::string& url, std::optional<Duration> timeout,
                                 const std::shared_ptr<WaitGroup>& group) {
  if (!url.starts_with("http")) {
    imagesLog().fault("invalid url scheme: %@", url);
    return;
  }
  UrlCache* cache = this->cache();
  if (cache == nullptr || !assembly_.downloadSession) return;
  HttpRequest request;
  request.url = url;
  request.timeout = timeout;
  // No larger image would be kept: the cache takes no entry over 5% of its disk tier.
  request.maxBodySize = cache->diskCapacity() / 20;
  if (cache->mappedResponseForRequest(request)) {
    imagesLog().debug("found %@ in cache", url);
    return;
  }
  if (group) group->enter();
  fetchQueue_.async([weakSelf = weak_from_this(), request = std::move(request), group] {
    if (auto self = weakSelf.lock()) {
      self->startFetch(request, group);
    } else if (group) {
      group->leave();
    }
  });
}

void ImageFetcher::startFetch(const HttpRequest& request, const std::shared_ptr<WaitGroup>& group) {
  fetchQueue_.assertCurrent("ImageFetcher::startFetch");
  if (const auto found = inFlight_.find(request.url); found != inFlight_.end()) {
    if (group) found->second.push_back(group);
    return;
  }
  const bool full = inFlight_.size() >= kMaxFetchesInFlight;
  // A fetch of the URL that ended since the caller looked has cached the image meanwhile.
  if (full || cache()->mappedResponseForRequest(request)) {
    if (full) {
      imagesLog().error("%lu image fetches under way: not fetching %@",
                        static_cast<unsigned long>(inFlight_.size()), request.url);
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterImageFetchesRefused);
    }
    if (group) group->leave();
    return;
  }
  Waiters& waiters = inFlight_[request.url];
  if (group) waiters.push_back(group);
  imagesLog().log("fetching image %@", request.url);
  auto transaction = std::make_shared<ProcessTransaction>("imageFetch");
  std::shared_ptr<const NBStartNetworkSearchFeedback> start = makeStartNetworkFeedback(
      request, "", kImageLoadTriggerEvent, kImageEndpoint, assembly_.clock->monotonicNow());
  ClientSessionManager::addOrvexdFeedback(start, assembly_);
  auto task = assembly_.downloadSession->downloadTask(
      request, [weakSelf = weak_from_this(), request, start,
                transaction = std::move(transaction)](HttpDownloadResult result) {
        if (auto self = weakSelf.lock()) self->fetchCompleted(request, start, std::move(result));
      });
  task->resume();
}

void ImageFetcher::fetchEnded(const std::string& url) {
  fetchQueue_.assertCurrent("ImageFetcher::fetchEnded");
  const auto found = inFlight_.find(url);
  if (found == inFlight_.end()) return;
  const Waiters waiters = std::move(found->second);
  inFlight_.erase(found);
  for (const auto& group : waiters) group->leave();
}

void ImageFetcher::fetchCompleted(const HttpRequest& request,
                                  const std::shared_ptr<const NBStartNetworkSearchFeedback>& start,
                                  HttpDownloadResult result) {
  const std::string& url = request.url;
  const int64_t status = result.response ? result.response->statusCode : 0;
  int64_t size = 0;
  if (result.error) {
    imagesLog().error("Error fetching image %@: %@", url, *result.error);
    ClientSessionManager::reportErrorAsOrvexdFeedback(
        OrvexError(kORVErrorDomain, 500, std::string("image fetch error ").append(url)), assembly_);
  } else if (status != 200) {
    imagesLog().error("Bad status code %ld for image %@", static_cast<long>(status), url);
  } else {
    imagesLog().info("Fetched image %@", url);
    size = cacheImage(request, *result.response, result.location);
  }
  auto end = std::make_shared<NBEndNetworkSearchFeedback>();
  end->timestamp = monotonicNanoseconds(assembly_.clock->monotonicNow());
  end->uuid = start->uuid;
  end->responseSize = size;
  end->statusCode = status;
  end->networkTimingData = std::move(result.timing);
  ClientSessionManager::addOrvexdFeedback(std::move(end), assembly_);
  fetchQueue_.async([weakSelf = weak_from_this(), url] {
    if (auto self = weakSelf.lock()) self->fetchEnded(url);
  });
}

int64_t ImageFetcher::cacheImage(const HttpRequest& request, const HttpResponse& response,
                                 const std::string& location) {
  UniqueFd file(::open(location.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file) {
    imagesLog().error("opening file failed %@", std::string(std::strerror(errno)));
    ClientSessionManager::reportErrorAsOrvexdFeedback(
        OrvexError(kORVErrorDomain, 500, "file open failed"), assembly_);
    return 0;
  }
  const off_t length = ::lseek(file.get(), 0, SEEK_END);
  int error = 0;
  auto body = mmapFileHandle(file.get(), &error);
  if (!body) {
    imagesLog().error("mmap failed %@", std::string(std::strerror(error)));
    ClientSessionManager::reportErrorAsOrvexdFeedback(
        OrvexError(kPOSIXErrorDomain, error, std::strerror(error)), assembly_);
    return std::max<int64_t>(length, 0);
  }
  imagesLog().debug("caching %zu bytes for %@", body->size(), request.url);
  const auto size = static_cast<int64_t>(body->size());
  if (UrlCache* cache = this->cache()) {
    cache->storeMappedResponse(request, response, location, std::move(body));
  }
  return size;
}

LoadedImages ImageFetcher::cachedImages(const std::vector<ImageDescription>& images,
                                        const ORVBag& bag) const {
  LoadedImages loaded;
  UrlCache* cache = this->cache();
  if (cache == nullptr) return loaded;
  const auto lookUp = [cache](const std::string& url) -> std::shared_ptr<const MappedFile> {
    HttpRequest request;
    request.url = url;
    auto found = cache->mappedResponseForRequest(request);
    return found && found->body->size() > 0 ? found->body : nullptr;
  };
  for (const auto& image : images) {
    if (image.url && parseImageUrl(*image.url)) {
      if (auto body = lookUp(*image.url)) {
        imagesLog().debug("mapping image url %@ to %lu bytes of data", *image.url,
                          static_cast<unsigned long>(body->size()));
        loaded[*image.url] = std::move(body);
        continue;
      }
    }
    if (!image.id) continue;
    if (const auto url = bag.urlForIdentifier(*image.id)) {
      if (auto body = lookUp(*url)) {
        imagesLog().debug("mapping image id %@ to %lu bytes of data", *image.id,
                          static_cast<unsigned long>(body->size()));
        loaded[*image.id] = std::move(body);
      }
    }
  }
  return loaded;
}

}  // namespace orvex
