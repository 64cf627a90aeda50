// orvex-backend: a search back-end to run orvexd against, for people and for tests.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>

#include "tools/orvex-backend/answer_builders.h"
#include "tools/orvex-backend/backend_server.h"
#include "tools/orvex-backend/bag_file.h"
#include "tools/orvex-backend/command_line.h"
#include "tools/orvex-backend/feedback_intake.h"
#include "tools/orvex-backend/image_directory.h"
#include "tools/orvex-backend/resource_files.h"
#include "tools/orvex-backend/wordnet_corpus.h"

namespace {

using namespace orvex::backend;

int fail(int status, const std::string& message) {
  std::cerr << "orvex-backend: " << message << "\n";
  return status;
}

// The source of the top-level domain list (Debian package publicsuffix).
constexpr const char* kPublicSuffixList = "/usr/share/publicsuffix/public_suffix_list.dat";

// The images endpoint serves the files below this path.
constexpr std::string_view kImages = "/images/";

// The endpoints the server answers, by the names that faults and the request log use.
EndpointRegistry makeEndpoints(BagFile bag, std::shared_ptr<const WordNetCorpus> corpus,
                               std::shared_ptr<FeedbackStore> feedback, ImageDirectory images,
                               const std::map<std::string, std::string>& resourceOverrides) {
  EndpointRegistry endpoints;
  const auto resources =
      std::make_shared<const ResourceFiles>(corpus.get(), kPublicSuffixList, resourceOverrides);
  ResourceFiles::addEndpoints(resources, endpoints);
  endpoints.add({"bag", "GET", "/bag",
                 [bag = std::move(bag),
                  versions = resources->bagVariables()](const EndpointRequest& request) {
                   const auto json = bag.read(request.baseUrl, versions);
                   return EndpointReply{200, "application/json", json.dump(2) + "\n", {}};
                 }});
  endpoints.add({"warm", "GET", "/warm", [](const EndpointRequest&) {
                   return EndpointReply{204, "", "", {}};
                 }});
  endpoints.add({"search", "GET", "/search", [corpus](const EndpointRequest& request) {
                   return answerSearchRequest(corpus.get(), request);
                 }});
  endpoints.add({"more", "GET", "/more", [corpus](const EndpointRequest& request) {
                   return answerMoreResults(corpus.get(), request);
                 }});
  endpoints.add({"card", "GET", "/card", [corpus](const EndpointRequest& request) {
                   return answerCard(corpus.get(), request);
                 }});
  endpoints.add({"images", "GET", std::string(kImages),
                 [images = std::move(images)](const EndpointRequest& request) {
                   return images.serve(std::string_view(request.path).substr(kImages.size()),
                                       request);
                 },
                 PathMatch::kPrefix});
  const auto intake = std::make_shared<const FeedbackIntake>(std::move(feedback));
  for (const std::string name : {"feedback", "crowdsourcing"}) {
    endpoints.add({name, "POST", "/" + name, [intake, name](const EndpointRequest& request) {
                     return intake->accept(name, request);
                   }});
  }
  return endpoints;
}

// A file of at most 64 MiB, whole; none when it cannot be read or is larger.
std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
  constexpr std::uintmax_t kLimit = std::uintmax_t{64} << 20;
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (error || size > kLimit) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::string bytes(static_cast<size_t>(size), '\0');
  if (!in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) return std::nullopt;
  return bytes;
}

// The bag shipped with the server: next to the binary in the build tree, else in the data
// directory of the installation it belongs to (found from the binary, so that a relocated
// install works too), else where it was configured to be installed.
std::optional<std::filesystem::path> findDefaultBag() {
  std::error_code error;
  const auto binary = std::filesystem::read_symlink("/proc/self/exe", error);
  std::vector<std::filesystem::path> candidates;
  if (!error) {
    candidates.push_back(binary.parent_path() / "bag.json");
    candidates.push_back(binary.parent_path() / ORVEX_BACKEND_BIN_TO_DATA / "bag.json");
  }
  candidates.emplace_back(ORVEX_BACKEND_DATA_DIR "/bag.json");
  for (const auto& candidate : candidates) {
    if (std::filesystem::is_regular_file(candidate, error)) return candidate.lexically_normal();
  }
  return std::nullopt;
}

// Written to a temporary file renamed into place, so a reader never sees a partial number.
bool writePortFile(const std::filesystem::path& path, int port) {
  const auto temporary = path.string() + ".tmp." + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << port << "\n";
    if (!out.flush()) return false;
  }
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) std::filesystem::remove(temporary, error);
  return !error;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  try {
    line = CommandLine::parse(std::vector<std::string_view>(argv + 1, argv + argc));
  } catch (const std::invalid_argument& error) {
    return fail(2, std::string(error.what()) + "\nTry 'orvex-backend --help'.");
  }
  if (line.help) {
    std::cout << CommandLine::usage() << std::flush;
    return 0;
  }
  if (!line.bag) line.bag = findDefaultBag();
  if (!line.bag) return fail(2, "cannot find the bag.json shipped with orvex-backend; use --bag");

  // SIGINT and SIGTERM are taken by sigwait below; every thread started from here on inherits
  // the mask. A client that goes away mid-answer must not end the process.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  // Searches answer 503 without a word list; the rest of the server is still of use.
  std::shared_ptr<const WordNetCorpus> corpus;
  try {
    corpus = WordNetCorpus::load(line.corpus);
  } catch (const std::runtime_error& error) {
    std::cerr << "orvex-backend: no search answers: " << error.what()
              << " (install wordnet-base or give --corpus DIR)\n";
  }

  std::error_code missing;
  if (!std::filesystem::is_directory(line.imagesDirectory, missing)) {
    std::cerr << "orvex-backend: no images: " << line.imagesDirectory.string()
              << " is not a directory (install adwaita-icon-theme or give --images-dir DIR)\n";
  }

  std::map<std::string, std::string> resourceOverrides;
  for (const auto& [key, file] : line.resources) {
    if (!ResourceFiles::isResourceKey(key))
      return fail(2, "--resource: no resource \"" + key + "\"");
    auto bytes = readSmallFile(file);
    if (!bytes) return fail(2, "--resource: cannot read " + file.string());
    resourceOverrides[key] = std::move(*bytes);
  }

  std::optional<BackendServer> server;
  try {
    auto feedback = std::make_shared<FeedbackStore>(line.feedbackDatabase);
    server.emplace(line.server,
                   makeEndpoints(BagFile(*line.bag), corpus, feedback,
                                 ImageDirectory(line.imagesDirectory), resourceOverrides),
                   feedback);
  } catch (const std::runtime_error& error) {
    return fail(2, error.what());
  }
  for (auto& [endpoint, fault] : line.faults) {
    if (!server->endpoints().contains(endpoint)) {
      return fail(2, "--fault: no endpoint named \"" + endpoint + "\"");
    }
    server->faults().set(endpoint, std::move(fault));
  }
  try {
    server->start();
  } catch (const std::runtime_error& error) {
    return fail(1, error.what());
  }

  std::cout << "orvex-backend listening on " << server->baseUrl() << std::endl;
  if (line.portFile && !writePortFile(*line.portFile, server->port())) {
    return fail(1, "cannot write the port file " + line.portFile->string());
  }
  std::error_code error;
  if (!std::filesystem::exists(*line.bag, error)) {
    std::cerr << "orvex-backend: the bag file " << line.bag->string()
              << " does not exist; bag requests get 500 until it does\n";
  } else if (!line.server.quiet) {
    std::cerr << "orvex-backend: serving the bag file " << line.bag->string() << "\n";
  }

  int received = 0;
  sigwait(&stopSignals, &received);
  server->stop();
  return 0;
}
