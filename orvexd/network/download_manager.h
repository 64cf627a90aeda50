// Keeps the bag's data files on the device.
//
// The bag names up to ten resource files by key (kORVAutofillTLDWhitelist …
// kORVCrowdsourcingWhitelist), each a URL string at its top level. With every bag
// ("ORVBagChangeNotification") the manager downloads, on the download session, each file whose
// URL is new or changed, or whose file is missing, and always the two lookup-hint files (only
// while the bag's "lookup_enabled" holds; otherwise they are left alone, neither fetched nor
// deleted). A key the bag no longer names loses its file. Files live in the daemon's cache
// directory under their key, replaced whole (temporary file and rename), mode 0600; a symbolic
// link planted at a name is replaced, never written through or read.
//
// Requests carry "X-Zelmor-Download-Identifier" (the key) and "If-None-Match": the URL's
// "version" query item, or for a lookup file that was redirected, the SHA-256 of the redirect
// URL's text in lower-case hex; a request for a missing file carries none, since an answer of
// 304 would leave it missing. URLs are stored and compared without their "key" query item.
//
// What was fetched is kept in the defaults key "download_resources" (identifier → {"url",
// "redirect_url"}). A stored file posts "ORVFileDownloadCompletedNotification" {"identifier",
// "url": file URL} and counts "com.zelmor.orvexd.resourcefilesfetched"; a removal posts
// "ORVFileDeletedNotification" {"identifier"}. Both are posted on the manager's queue.
//
// A download over kMaxResourceSize bytes is refused (logged, counted in
// "com.zelmor.orvexd.resourcefiletoolarge") and the old file kept.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orvexd/base/orvex_error.h"
#include "orvexd/model/interfaces/download_manager.h"
#include "orvexd/model/orv_bag.h"
#include "orvexd/platform/http_session.h"
#include "orvexd/platform/notification_center.h"
#include "orvexd/platform/serial_queue.h"

namespace orvex {

class Assembly;

class OrvexDownloadManager final : public DownloadManager,
                                   public std::enable_shared_from_this<OrvexDownloadManager> {
 public:
  static constexpr uint64_t kMaxResourceSize = uint64_t{64} << 20;
  // Reports a failed download as the daemon's own error feedback.
  using ErrorReporter = std::function<void(const OrvexError&)>;

  // Makes the queue and observes "ORVBagChangeNotification" of `assembly`.
  static std::shared_ptr<OrvexDownloadManager> initWithAssembly(Assembly& assembly,
                                                                ErrorReporter reportError);
  // Use initWithAssembly(); public for make_shared.
  OrvexDownloadManager(Assembly& assembly, ErrorReporter reportError);

  std::optional<DownloadResource> resourceForKey(const std::string& key) const override;
  std::map<std::string, std::string> resourceVersions() const override;
  std::optional<UniqueFd> fileHandleForResource(const std::string& identifier,
                                                ResourceFileAttributes* attributes,
                                                OrvexError* error) const override;

  // The device moved far: both lookup files are forgotten (kept on disk) so that the next bag
  // fetches them again for the new place.
  void handleSignificantLocationChange();

  // `url` without its "key" query items (and without a query when none remain).
  static std::string urlForCompare(std::string_view url);
  // The lookup's signature of a URL: the SHA-256 of its text, lower-case hex.
  static std::string signatureFromURL(std::string_view url);

 private:
  void bagChangeNotification(const Notification& notification);
  void _start();
  // The rest run on queue_.
  void _downloadBagResources(const ORVBag& bag);
  void _addResource(const std::string& key, const std::optional<std::string>& url);
  void _downloadResource(const DownloadResource& resource, const std::string& url,
                         const char* reason);
  std::optional<HttpRequest> _createDownloadRequest(const DownloadResource& resource,
                                                    const std::string& url, const char* reason);
  std::string _resourceVersion(const DownloadResource& resource) const;
  void _deleteResource(const std::string& key, bool removeFile);
  void _downloadFinished(const std::string& identifier, const HttpDownloadResult& result);
  void _taskCompleted(const std::string& identifier, const std::string& requestUrl,
                      const std::string& bagUrl, const HttpDownloadResult& result);
  // Replaces the key's file with the downloaded one; its path, none on failure.
  std::optional<std::filesystem::path> _storeDownload(const std::string& identifier,
                                                      const std::string& downloaded);
  std::optional<std::filesystem::path> _pathToResource(const std::string& key) const;
  void _saveResources();
  void _loadResources();

  Assembly& assembly_;
  const ErrorReporter reportError_;
  SerialQueue queue_;  // "com.zelmor.orvex.DownloadManager"
  // Owned by queue_: the records by key, and the download under way for a key.
  std::map<std::string, DownloadResource, std::less<>> resources_;
  std::map<std::string, std::shared_ptr<HttpTask>, std::less<>> tasks_;
  std::atomic<bool> started_{false};
  ObserverToken bagObserver_;  // written once by initWithAssembly()
};

}  // namespace orvex
