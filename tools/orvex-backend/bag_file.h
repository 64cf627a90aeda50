// The bag served to the daemon, read from a JSON file on every request so that a person can
// edit it while the server runs.
#pragma once

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace orvex::backend {

class BagFile {
 public:
  explicit BagFile(std::filesystem::path path) : path_(std::move(path)) {}

  const std::filesystem::path& path() const { return path_; }

  // The file's JSON object, key order kept, with every "${BASE_URL}" inside a string value
  // replaced by `baseUrl`, and every "${NAME}" for a NAME of `variables` by its value. Throws
  // std::runtime_error saying what is wrong when the file cannot be read, is not JSON, or holds
  // something other than an object.
  nlohmann::ordered_json read(const std::string& baseUrl,
                              std::map<std::string, std::string> variables = {}) const;

 private:
  std::filesystem::path path_;
};

}  // namespace orvex::backend
