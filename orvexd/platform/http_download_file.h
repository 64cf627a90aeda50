// The files of an HttpSession's download tasks: each is a new file of mode 0600 in the
// session's temporary directory, which the task's completion may move away and which the task
// removes once the completion returns.
//
// Plain file operations, callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "orvexd/base/unique_fd.h"

namespace orvex {

// Creates a new download file in `directory` (/tmp when empty) and opens it for writing; `path`
// receives its name. On failure the descriptor is empty and `error` holds errno.
UniqueFd createDownloadFile(const std::string& directory, std::string& path, int& error);

// A new download file in `directory` holding `body`: its path, or nothing with `error` set (no
// file is left behind then).
std::optional<std::string> writeDownloadFile(const std::string& directory, std::string_view body,
                                             std::error_code& error);

// Replaces what the download file at `path` holds with `body`.
std::error_code overwriteDownloadFile(const std::string& path, std::string_view body);

// What the download file at `path` holds, when that is at most `limit` bytes and could be read
// whole.
std::optional<std::string> readDownloadFile(const std::string& path, uint64_t limit);

}  // namespace orvex
