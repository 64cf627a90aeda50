// The command line of orvex-backend.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/orvex-backend/backend_server.h"
#include "tools/orvex-backend/fault.h"
#include "tools/orvex-backend/feedback_store.h"

namespace orvex::backend {

struct CommandLine {
  // Options take their value as the next argument or after '=' (--port=8080). Throws
  // std::invalid_argument, saying what is wrong, for a command line that cannot be run.
  static CommandLine parse(const std::vector<std::string_view>& arguments);
  static std::string_view usage();

  bool help = false;
  BackendServer::Options server;
  std::optional<std::filesystem::path> bag;
  std::optional<std::filesystem::path> portFile;
  // The WordNet database the search endpoint answers from.
  std::filesystem::path corpus = "/usr/share/wordnet";
  // The files the images endpoint serves (Debian package adwaita-icon-theme).
  std::filesystem::path imagesDirectory = "/usr/share/icons/Adwaita";
  // Where accepted uploads are kept: an SQLite file, or memory (FeedbackStore::kInMemory).
  std::string feedbackDatabase = FeedbackStore::kInMemory;
  std::vector<std::pair<std::string, Fault>> faults;  // by endpoint name, in order given
  // Resource documents served from files instead of the built-in ones: key → file.
  std::vector<std::pair<std::string, std::filesystem::path>> resources;
};

}  // namespace orvex::backend
