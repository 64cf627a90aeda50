#include "tools/orvex-backend/app_whitelist_builder.h"

#include <openssl/evp.h>

#include <array>
#include <nlohmann/json.hpp>

#include "orvexd/platform/metainfo_reader.h"

namespace orvex::backend {

namespace {

// The first four bytes of the SHA-512 of `text`, as eight hexadecimal digits.
std::string versionOf(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  (void)EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha512(), nullptr);
  std::string hex;
  for (int i = 0; i < 4; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    hex.push_back(kDigits[digest[i] >> 4]);
    hex.push_back(kDigits[digest[i] & 0xF]);
  }
  return hex;
}

}  // namespace

std::string buildAppWhitelist(const std::vector<std::filesystem::path>& metainfoDirectories) {
  return buildAppWhitelist(readInstalledApplications(metainfoDirectories).applications);
}

std::string buildAppWhitelist(const std::vector<InstalledApplication>& applications) {
  nlohmann::json apps = nlohmann::json::object();
  std::string idList;
  uint32_t index = 1;
  for (const InstalledApplication& application : applications) {
    apps[application.bundleIdentifier] = nlohmann::json::array({{{"encoding_id", index++}}});
    idList.append(application.bundleIdentifier).push_back('\n');
  }
  const nlohmann::json inner{{"version", versionOf(idList)}, {"apps", apps}};
  const nlohmann::json outer{
      {"apps", inner.dump()}, {"compression", "RLE"}, {"encoding", "bitmap"}};
  return outer.dump();
}

std::vector<InstalledApplication> applicationsOnThisMachine() {
  return readInstalledApplications(
             findMetainfoLocations(MetainfoRoots::fromEnvironment()).metainfoDirectories)
      .applications;
}

}  // namespace orvex::backend
