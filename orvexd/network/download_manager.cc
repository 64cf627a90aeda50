#include "orvexd/network/download_manager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/base/orvex_names.h"
#include "orvexd/model/assembly.h"
#include "orvexd/model/interfaces/network_request_factory.h"
#include "orvexd/network/url_request_builder.h"
#include "orvexd/platform/defaults_store.h"
#include "orvexd/platform/diagnostic_data_reporter.h"
#include "orvexd/platform/file_manager.h"
#include "orvexd/platform/sha256_hex.h"

namespace orvex {

namespace {

const OrvexLog& downloadLog() { return OrvexLogForCategory(kOrvexLogDownloadManager); }

constexpr char kIdentifierHeader[] = "X-Zelmor-Download-Identifier";
// libcurl's CURLE_FILESIZE_EXCEEDED: the answer was longer than the request's maxBodySize.
constexpr int64_t kFileSizeExceeded = 63;
// Longer URLs in the bag or the saved state are taken as absent.
constexpr size_t kMaxUrlLength = 8192;

bool isResourceKey(std::string_view key) {
  for (const auto known : kORVResourceKeys) {
    if (known == key) return true;
  }
  return false;
}

bool _isLookupResource(std::string_view key) {
  return key == kORVLookupHintsWeekly || key == kORVLookupHintsMonthly;
}

// An http(s) URL the request builder can take, of sane length.
bool isUsableUrl(const std::string& url) {
  return url.size() <= kMaxUrlLength &&
         (url.starts_with("http://") || url.starts_with("https://")) &&
         OrvexURLRequestBuilder::requestBuilderWithURL(url).has_value();
}

// Calls visit(item, name) for each non-empty item of a query, `name` percent-decoded.
template <typename Visit>
void forEachQueryItem(std::string_view query, Visit visit) {
  size_t start = 0;
  while (start < query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    const std::string_view item = query.substr(start, end - start);
    if (!item.empty()) visit(item, percentDecode(item.substr(0, item.find('='))));
    start = end + 1;
  }
}

// The value of the first query item called `name`, percent-decoded.
std::optional<std::string> queryItem(std::string_view url, std::string_view name) {
  url = url.substr(0, url.find('#'));
  const size_t question = url.find('?');
  if (question == std::string_view::npos) return std::nullopt;
  std::optional<std::string> value;
  forEachQueryItem(url.substr(question + 1), [&](std::string_view item, const std::string& key) {
    const size_t equals = item.find('=');
    if (value || key != name) return;
    value =
        equals == std::string_view::npos ? std::string() : percentDecode(item.substr(equals + 1));
  });
  return value;
}

}  // namespace

std::shared_ptr<OrvexDownloadManager> OrvexDownloadManager::initWithAssembly(
    Assembly& assembly, ErrorReporter reportError) {
  auto manager = std::make_shared<OrvexDownloadManager>(assembly, std::move(reportError));
  manager->bagObserver_ = assembly.notificationCenter->addObserver(
      kORVBagChangeNotification, nullptr,
      [weak = std::weak_ptr<OrvexDownloadManager>(manager)](const Notification& notification) {
        if (auto self = weak.lock()) self->bagChangeNotification(notification);
      });
  return manager;
}

OrvexDownloadManager::OrvexDownloadManager(Assembly& assembly, ErrorReporter reportError)
    : assembly_(assembly),
      reportError_(std::move(reportError)),
      queue_("com.zelmor.orvex.DownloadManager", *assembly.workerPool, *assembly.clock) {}

std::string OrvexDownloadManager::urlForCompare(std::string_view url) {
  const size_t hash = std::min(url.find('#'), url.size());
  const std::string_view fragment = url.substr(hash);
  url = url.substr(0, hash);
  const size_t question = url.find('?');
  if (question == std::string_view::npos) return std::string(url).append(fragment);
  std::string kept;
  forEachQueryItem(url.substr(question + 1),
                   [&kept](std::string_view item, const std::string& name) {
                     if (name == "key") return;
                     if (!kept.empty()) kept.push_back('&');
                     kept.append(item);
                   });
  std::string result(url.substr(0, question));
  if (!kept.empty()) result.append("?").append(kept);
  return result.append(fragment);
}

std::string OrvexDownloadManager::signatureFromURL(std::string_view url) { return sha256Hex(url); }

std::optional<DownloadResource> OrvexDownloadManager::resourceForKey(const std::string& key) const {
  return queue_
      .syncResult([&]() -> std::optional<DownloadResource> {
        const auto found = resources_.find(key);
        if (found == resources_.end() || found->second.url.empty()) return std::nullopt;
        return found->second;
      })
      .value_or(std::nullopt);
}

std::map<std::string, std::string> OrvexDownloadManager::resourceVersions() const {
  return queue_
      .syncResult([&] {
        std::map<std::string, std::string> versions;
        for (const auto& [key, resource] : resources_) {
          if (auto version = _resourceVersion(resource); !version.empty()) {
            versions.emplace(key, std::move(version));
          }
        }
        return versions;
      })
      .value_or(std::map<std::string, std::string>());
}

std::optional<UniqueFd> OrvexDownloadManager::fileHandleForResource(
    const std::string& identifier, ResourceFileAttributes* attributes, OrvexError* error) const {
  const auto fail = [error](int64_t code, std::string reason) {
    if (error != nullptr) *error = OrvexError(kORVErrorDomain, code, std::move(reason));
    return std::nullopt;
  };
  // Only the ten keys name files, so no identifier can reach outside the directory.
  if (!isResourceKey(identifier)) {
    return fail(400, "unknown resource identifier \"" + identifier.substr(0, 128) + "\"");
  }
  const auto resource = resourceForKey(identifier);
  const auto path = _pathToResource(identifier);
  if (!resource || !path) return fail(404, "resource " + identifier + " has not been downloaded");
  UniqueFd fd(::open(path->c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return fail(404, "resource " + identifier + " has no file");
  }
  if (attributes != nullptr) {
    attributes->size = static_cast<uint64_t>(status.st_size);
    attributes->modified = static_cast<int64_t>(status.st_mtim.tv_sec);
    attributes->url = resource->url;
  }
  return fd;
}

void OrvexDownloadManager::handleSignificantLocationChange() {
  _start();
  queue_.async([weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->_deleteResource(kORVLookupHintsWeekly, false);
    self->_deleteResource(kORVLookupHintsMonthly, false);
  });
}

void OrvexDownloadManager::bagChangeNotification(const Notification& notification) {
  const auto* bag = notification.userInfoValue<std::shared_ptr<const ORVBag>>("bag");
  const auto* bagError = notification.userInfoValue<OrvexError>("bagError");
  downloadLog().info("bag change: %@", bag != nullptr && *bag ? "bag version " + (*bag)->version()
                                       : bagError != nullptr  ? bagError->describe()
                                                              : std::string("no bag"));
  if (bag == nullptr || !*bag) return;
  _start();
  queue_.async([weak = weak_from_this(), bag = *bag] {
    if (auto self = weak.lock()) self->_downloadBagResources(*bag);
  });
}

void OrvexDownloadManager::_start() {
  if (started_.exchange(true)) return;
  downloadLog().info("started");
  queue_.async([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->_loadResources();
  });
}

void OrvexDownloadManager::_downloadBagResources(const ORVBag& bag) {
  queue_.assertCurrent("_downloadBagResources");
  // Only this manager's own tasks: the download session also fetches images.
  for (const auto& [key, task] : tasks_) {
    downloadLog().debug("canceling %@", urlForCompare(task->originalRequest().url));
    task->cancel();
  }
  tasks_.clear();
  const BagDictionary& raw = bag.rawBag();
  for (const auto key : kORVResourceKeys) {
    const std::string name(key);
    if (_isLookupResource(key) && !bag.lookupEnabled()) {
      downloadLog().info("%@ is disabled, not downloading", name);
      continue;
    }
    std::optional<std::string> url;
    const auto found = raw.find(name);
    if (found != raw.end() && found->is_string()) url = found->get<std::string>();
    _addResource(name, url);
  }
  _saveResources();
}

void OrvexDownloadManager::_addResource(const std::string& key,
                                        const std::optional<std::string>& url) {
  queue_.assertCurrent("_addResource");
  if (!url) {
    _deleteResource(key, true);
    return;
  }
  if (!isUsableUrl(*url)) {
    downloadLog().error("not downloading %@: unusable URL", key);
    return;
  }
  DownloadResource& resource = resources_[key];
  resource.identifier = key;
  if (resource.url == urlForCompare(*url)) {
    // Anything but a regular file at the name (a planted link, say) counts as missing.
    const auto path = _pathToResource(key);
    const auto file = path ? assembly_.fileManager->attributesOfItem(*path) : std::nullopt;
    if (path && !(file && S_ISREG(file->mode))) {
      _downloadResource(resource, *url, "missing");
    } else if (_isLookupResource(key)) {
      _downloadResource(resource, *url, "lookup");
    }
    return;
  }
  // The record takes the new URL once the download has completed.
  _downloadResource(resource, *url, "update");
}

std::optional<HttpRequest> OrvexDownloadManager::_createDownloadRequest(
    const DownloadResource& resource, const std::string& url, const char* reason) {
  queue_.assertCurrent("_createDownloadRequest");
  // A conditional request for a file that is not there could only bring a 304 and no file.
  const std::string version =
      std::string_view(reason) == "missing" ? std::string() : _resourceVersion(resource);
  auto request = assembly_.requestFactory->fileDownloadRequest(
      url, version, _isLookupResource(resource.identifier));
  if (!request) return std::nullopt;
  // The system's 24-hour window for starting a background download has no libcurl equivalent:
  // the download starts at once.
  request->headers.insert_or_assign(kIdentifierHeader, resource.identifier);
  request->cachePolicy = HttpCachePolicy::kReloadIgnoringLocalCacheData;
  request->maxBodySize = kMaxResourceSize;
  return request;
}

void OrvexDownloadManager::_downloadResource(const DownloadResource& resource,
                                             const std::string& url, const char* reason) {
  queue_.assertCurrent("_downloadResource");
  auto request = _createDownloadRequest(resource, url, reason);
  if (!request) {
    downloadLog().error("cannot build a download request for %@", resource.identifier);
    return;
  }
  downloadLog().info("starting download of %@ reason: %@ delay: %f headers: %@",
                     resource.identifier, reason, 0.0, describeHeaders(request->headers));
  const std::string requestUrl = request->url;
  auto task = assembly_.downloadSession->downloadTask(
      std::move(*request), [weak = weak_from_this(), identifier = resource.identifier, requestUrl,
                            bagUrl = url](HttpDownloadResult result) {
        auto self = weak.lock();
        if (!self) return;
        if (result.error && result.error->domain == kHttpErrorDomain &&
            result.error->code == kHttpErrorCancelled) {
          return;
        }
        // On the queue, before the completion returns and the downloaded file goes.
        (void)self->queue_.sync([&] {
          if (auto found = self->tasks_.find(identifier);
              found != self->tasks_.end() &&
              found->second->state() == HttpTask::State::kCompleted) {
            self->tasks_.erase(found);
          }
          self->_downloadFinished(identifier, result);
          self->_taskCompleted(identifier, requestUrl, bagUrl, result);
        });
      });
  tasks_.insert_or_assign(resource.identifier, task);
  task->resume();
}

std::string OrvexDownloadManager::_resourceVersion(const DownloadResource& resource) const {
  if (_isLookupResource(resource.identifier) && resource.redirectUrl) {
    return signatureFromURL(*resource.redirectUrl);
  }
  return queryItem(resource.url, "version").value_or("");
}

void OrvexDownloadManager::_deleteResource(const std::string& key, bool removeFile) {
  queue_.assertCurrent("_deleteResource");
  const auto path = _pathToResource(key);
  const bool known = resources_.contains(key) || tasks_.contains(key);
  // A key the bag never named has nothing to delete and nothing to announce.
  if (!known && !(removeFile && path && assembly_.fileManager->attributesOfItem(*path))) return;
  downloadLog().info("deleting resource: %@", key);
  resources_.erase(key);
  _saveResources();
  if (auto task = tasks_.find(key); task != tasks_.end()) {
    task->second->cancel();
    tasks_.erase(task);
  }
  if (removeFile) {
    if (!path) {
      downloadLog().error("error trying to get path to file for deletion %@", key);
    } else if (const auto error = assembly_.fileManager->removeItem(*path)) {
      downloadLog().error("error trying to remove file at url %@: %@", path->string(),
                          error.message());
    }
  }
  assembly_.notificationCenter->post(kORVFileDeletedNotification, this,
                                     {{"identifier", std::string(key)}});
}

void OrvexDownloadManager::_downloadFinished(const std::string& identifier,
                                             const HttpDownloadResult& result) {
  queue_.assertCurrent("_downloadFinished");
  if (!result.response || result.error) return;
  const int64_t status = result.response->statusCode;
  if (status != 200) {
    downloadLog().info("download of %@ got a %li response", identifier, status);
    return;
  }
  downloadLog().info("download of %@ finished %@", identifier, urlForCompare(result.response->url));
  if (!resources_.contains(identifier)) {
    downloadLog().error("failed to find download for identifier: %@ url: %@", identifier,
                        urlForCompare(result.response->url));
    return;
  }
  const auto path = _storeDownload(identifier, result.location);
  if (!path) return;
  OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterResourceFilesFetched);
  assembly_.notificationCenter->post(
      kORVFileDownloadCompletedNotification, this,
      {{"identifier", identifier}, {"url", std::string("file://").append(path->string())}});
}

std::optional<std::filesystem::path> OrvexDownloadManager::_storeDownload(
    const std::string& identifier, const std::string& downloaded) {
  auto path = _pathToResource(identifier);
  if (!path) {
    downloadLog().error("failed getting destination URL for %@", identifier);
    return std::nullopt;
  }
  // Read whole and written beside the old file, then renamed over it: the temporary directory
  // may be on another file system, and readers never see half a file.
  std::error_code error;
  const auto bytes = assembly_.fileManager->readFile(downloaded, error, kMaxResourceSize);
  if (bytes) error = assembly_.fileManager->writeFileAtomically(*path, *bytes, 0600);
  if (bytes && error == std::errc::too_many_symbolic_link_levels) {
    // A link planted at the name is removed, never followed, and the file takes its place.
    error = assembly_.fileManager->removeItem(*path);
    if (!error) error = assembly_.fileManager->writeFileAtomically(*path, *bytes, 0600);
  }
  if (!bytes || error) {
    downloadLog().error("error copying download %@", error.message());
    return std::nullopt;
  }
  return path;
}

void OrvexDownloadManager::_taskCompleted(const std::string& identifier,
                                          const std::string& requestUrl, const std::string& bagUrl,
                                          const HttpDownloadResult& result) {
  queue_.assertCurrent("_taskCompleted");
  const auto report = [this](std::string reason) {
    if (reportError_) reportError_(OrvexError(kORVErrorDomain, 500, std::move(reason)));
  };
  const int64_t status = result.response ? result.response->statusCode : 0;
  const bool answered = result.response && (status == 200 || status == 304);
  if (result.response && !answered) report(formatLog("status code %ld", status));
  if (requestUrl.empty()) {
    downloadLog().error("task completed with nil url and error: %@",
                        result.error ? result.error->describe() : std::string("none"));
    return;
  }
  if (result.error) {
    downloadLog().error("download task error %@", result.error->describe());
    if (result.error->domain == kHttpErrorDomain && result.error->code == kFileSizeExceeded) {
      downloadLog().error("download of %@ refused: larger than %llu bytes", identifier,
                          static_cast<unsigned long long>(kMaxResourceSize));
      OrvexDiagnosticDataReporter::addValueForScalarKey(1, kORVCounterResourceFileTooLarge);
    }
    report(formatLog("download error %@ %ld", result.error->domain, result.error->code));
    return;
  }
  // A failed answer leaves the record alone, so that the next bag tries again.
  if (!answered) return;
  const auto found = resources_.find(identifier);
  if (found == resources_.end()) {
    downloadLog().error("could not find resource for download identifier: %@ url: %@", identifier,
                        urlForCompare(requestUrl));
    report(formatLog("can't find %@", identifier));
    return;
  }
  // The bag's URL rather than the request's, whose query the request builder reorders.
  DownloadResource& resource = found->second;
  resource.url = urlForCompare(bagUrl);
  const std::string finalUrl = urlForCompare(result.response->url);
  resource.redirectUrl.reset();
  if (finalUrl != urlForCompare(requestUrl)) resource.redirectUrl = finalUrl;
  downloadLog().info("%@ url: %@", identifier, resource.url);
  _saveResources();
}

std::optional<std::filesystem::path> OrvexDownloadManager::_pathToResource(
    const std::string& key) const {
  if (key.empty()) {
    downloadLog().error("error resource bag key is nil");
    return std::nullopt;
  }
  const FileManager& files = *assembly_.fileManager;
  const std::filesystem::path directory = files.cacheDirectory();
  if (const auto error = files.ensureDirectory(directory)) {
    downloadLog().error("error getting cache directory %@", error.message());
    downloadLog().error("error caches directory is nil");
    return std::nullopt;
  }
  return directory / key;
}

void OrvexDownloadManager::_saveResources() {
  queue_.assertCurrent("_saveResources");
  PlistDictionary saved;
  for (const auto& [key, resource] : resources_) {
    if (resource.url.empty()) continue;  // never downloaded yet
    PlistDictionary record{{"url", PlistValue(resource.url)}};
    if (resource.redirectUrl) record.emplace("redirect_url", PlistValue(*resource.redirectUrl));
    saved.emplace(key, PlistValue(std::move(record)));
  }
  DefaultsStore& defaults = *assembly_.userDefaults;
  if (!defaults.setObject(kORVDownloadResourcesKey, PlistValue(std::move(saved))) ||
      !defaults.synchronize()) {
    downloadLog().error("exception saving resource %@: %@", kORVDownloadResourcesKey,
                        "the defaults store refused it");
  }
}

void OrvexDownloadManager::_loadResources() {
  queue_.assertCurrent("_loadResources");
  const auto saved = assembly_.userDefaults->dictionaryForKey(kORVDownloadResourcesKey);
  if (!saved) return;
  for (const auto& [key, value] : *saved) {
    const PlistDictionary* record = value.asDictionary();
    if (!isResourceKey(key) || record == nullptr || resources_.contains(key)) continue;
    const auto url = record->find("url");
    const std::string* text = url == record->end() ? nullptr : url->second.asString();
    if (text == nullptr || !isUsableUrl(*text)) continue;
    DownloadResource resource{key, urlForCompare(*text), std::nullopt};
    if (const auto redirect = record->find("redirect_url"); redirect != record->end()) {
      if (const auto* target = redirect->second.asString(); target && isUsableUrl(*target)) {
        resource.redirectUrl = *target;
      }
    }
    resources_.emplace(key, std::move(resource));
  }
}

}  // namespace orvex
