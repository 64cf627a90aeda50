#include "tools/orvex-backend/image_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <optional>

#include "orvexd/base/unique_fd.h"
#include "tools/orvex-backend/hex_digest.h"

namespace orvex::backend {
namespace {

// 32 hexadecimal digits of the digest are plenty to tell two versions of a file apart.
constexpr size_t kTagDigits = 32;

EndpointReply notFound(std::string_view relative, std::string_view why) {
  std::string body = "no image /images/";
  body.append(relative).append(": ").append(why).append("\n");
  return {404, "text/plain", std::move(body), {}};
}

std::optional<std::string_view> contentTypeOf(const std::filesystem::path& name) {
  std::string extension = name.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".png") return "image/png";
  if (extension == ".svg") return "image/svg+xml";
  if (extension == ".jpg" || extension == ".jpeg") return "image/jpeg";
  if (extension == ".gif") return "image/gif";
  if (extension == ".webp") return "image/webp";
  return std::nullopt;
}

bool inside(const std::filesystem::path& path, const std::filesystem::path& directory) {
  const auto [left, right] =
      std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
  return left == directory.end() && right != path.end();
}

}  // namespace

bool namesTag(std::string_view list, std::string_view tag) {
  while (!list.empty()) {
    const size_t comma = std::min(list.find(','), list.size());
    std::string_view item = list.substr(0, comma);
    list.remove_prefix(std::min(comma + 1, list.size()));
    while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
    while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
    if (item.starts_with("W/")) item.remove_prefix(2);
    if (item == "*" || item == tag) return true;
  }
  return false;
}

EndpointReply ImageDirectory::serve(std::string_view relative,
                                    const EndpointRequest& request) const {
  const std::filesystem::path name(relative);
  if (relative.empty() || name.is_absolute() || relative.find('\0') != std::string_view::npos ||
      std::any_of(name.begin(), name.end(), [](const auto& part) { return part == ".."; })) {
    return notFound(relative, "not a name inside the image directory");
  }
  const auto contentType = contentTypeOf(name);
  if (!contentType) return notFound(relative, "not a PNG, SVG, JPEG, GIF or WebP file");

  // Symbolic links may point anywhere inside the directory, but not out of it.
  std::error_code error;
  const auto root = std::filesystem::canonical(root_, error);
  if (error) return notFound(relative, "the image directory is missing");
  const auto file = std::filesystem::canonical(root / name, error);
  if (error) return notFound(relative, "no such file");
  if (!inside(file, root)) return notFound(relative, "outside the image directory");

  // Non-blocking, so that a FIFO with an image's name cannot hold the worker.
  const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return notFound(relative, "not a readable file");
  }
  if (static_cast<std::uintmax_t>(status.st_size) > kMaxFileSize) {
    return notFound(relative, "larger than 8 MiB");
  }
  std::string bytes(static_cast<size_t>(status.st_size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
    if (got <= 0) return {500, "text/plain", "the image file could not be read\n", {}};
    done += static_cast<size_t>(got);
  }

  std::string tag = "\"";
  tag.append(sha512Hex(bytes).substr(0, kTagDigits)).append("\"");
  HeaderList headers = {{"ETag", tag}, {"Cache-Control", std::string(kCacheControl)}};
  const auto condition = request.header("If-None-Match");
  if (condition && namesTag(*condition, tag)) return {304, "", "", std::move(headers)};
  return {200, std::string(*contentType), std::move(bytes), std::move(headers)};
}

}  // namespace orvex::backend
