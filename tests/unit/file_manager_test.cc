#include "orvexd/platform/file_manager.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/test_environment.h"

namespace orvex {
namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

using testing::readTextFile;

struct FileManagerTest : ::testing::Test {
  testing::TempDir dir;
  const FileManager files{{dir.path().string(), "", "", ""}};
};

TEST(FileManager, ResolvesDirectoriesByTheXdgRules) {
  // Absolute values are used as they are (the daemon's tests run on them); empty and relative
  // ones are ignored.
  const FileManager fallback({"/home/u", "", "./config", "tmp"});
  EXPECT_EQ(fallback.cacheDirectory(), "/home/u/.cache/com.zelmor.orvexd");
  EXPECT_EQ(fallback.configDirectory(), "/home/u/.config/com.zelmor.orvexd");
  EXPECT_EQ(fallback.temporaryDirectory(), "/tmp");

  testing::ScopedEnv home("HOME", "/home/someone");
  testing::ScopedEnv cache("XDG_CACHE_HOME", std::nullopt);
  testing::ScopedEnv config("XDG_CONFIG_HOME", "relative/config");
  testing::ScopedEnv tmp("TMPDIR", "/scratch");
  const FileManager process(DirectoryEnvironment::fromProcess());
  EXPECT_EQ(process.cacheDirectory(), "/home/someone/.cache/com.zelmor.orvexd");
  EXPECT_EQ(process.configDirectory(), "/home/someone/.config/com.zelmor.orvexd");
  EXPECT_EQ(process.temporaryDirectory(), "/scratch");
}

// (Listing, describing and removing items: the session storage's tests, over its files.)
TEST_F(FileManagerTest, CreatesNestedDirectoriesWithTheirParents) {
  const auto nested = dir / "a/b/c";
  EXPECT_FALSE(files.ensureDirectory(nested, 0700));
  EXPECT_FALSE(files.ensureDirectory(nested, 0700));                  // already there
  EXPECT_EQ(files.attributesOfItem(dir / "a")->mode & 07777, 0700u);  // and its parents
  ASSERT_FALSE(files.writeFileAtomically(dir / "a/file", bytesOf("12345")));
  EXPECT_EQ(files.ensureDirectory(dir / "a/file/sub"), std::errc::not_a_directory);
  std::error_code error;
  EXPECT_EQ(files.contentsOfDirectory(dir / "missing", error), std::nullopt);
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(FileManagerTest, WritesAtomicallyWithTheModeAndKeepsOldContentOnFailure) {
  const auto file = dir / "state.plist";
  ASSERT_FALSE(files.writeFileAtomically(file, bytesOf("first"), 0640));
  EXPECT_EQ(readTextFile(file), "first");
  EXPECT_EQ(files.attributesOfItem(file)->mode & 07777, 0640u);
  ASSERT_FALSE(files.writeFileAtomically(file, bytesOf("second, longer")));
  EXPECT_EQ(readTextFile(file), "second, longer");
  EXPECT_EQ(files.attributesOfItem(file)->mode & 07777, 0600u);

  // A write that fails half-way (the file size limit stops it) leaves the old file and no
  // temporary file behind.
  {
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit original{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &original), 0);
    rlimit small = original;
    small.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::vector<std::uint8_t> large(64 * 1024, 'x');
    const auto error = files.writeFileAtomically(file, large);
    setrlimit(RLIMIT_FSIZE, &original);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(error, std::errc::file_too_large);
  }
  EXPECT_EQ(readTextFile(file), "second, longer");
  std::error_code error;
  EXPECT_EQ(files.contentsOfDirectory(dir.path(), error), std::vector<fs::path>{file});

  // A directory in the way, and a directory that does not exist.
  ASSERT_FALSE(files.ensureDirectory(dir / "taken/inside"));
  EXPECT_TRUE(files.writeFileAtomically(dir / "taken", bytesOf("x")));
  EXPECT_TRUE(fs::is_directory(dir / "taken/inside"));
  EXPECT_EQ(files.writeFileAtomically(dir / "nowhere/file", bytesOf("x")),
            std::errc::no_such_file_or_directory);
  EXPECT_EQ(files.contentsOfDirectory(dir / "taken", error),
            std::vector<fs::path>{dir / "taken/inside"});

  // Without write permission on the directory (only meaningful when not running as root).
  if (geteuid() != 0) {
    fs::permissions(dir.path(), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(files.writeFileAtomically(file, bytesOf("third")), std::errc::permission_denied);
    fs::permissions(dir.path(), fs::perms::owner_all);
    EXPECT_EQ(readTextFile(file), "second, longer");
  }
}

TEST_F(FileManagerTest, ReadsWholeFilesUpToTheLimit) {
  const auto file = dir / "data";
  const std::vector<std::uint8_t> content(100000, 7);
  ASSERT_FALSE(files.writeFileAtomically(file, content));

  std::error_code error;
  EXPECT_EQ(files.readFile(file, error), content);
  EXPECT_FALSE(error);
  EXPECT_EQ(files.readFile(file, error, content.size()), content);
  EXPECT_EQ(files.readFile(file, error, content.size() - 1), std::nullopt);
  EXPECT_EQ(error, std::errc::file_too_large);

  ASSERT_FALSE(files.writeFileAtomically(dir / "empty", {}));
  EXPECT_EQ(files.readFile(dir / "empty", error), std::vector<std::uint8_t>{});
  EXPECT_EQ(files.readFile(dir / "missing", error), std::nullopt);
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);

  // With no limit at all, and on a file that reports no size and must be read to the end.
  EXPECT_EQ(files.readFile(file, error, SIZE_MAX), content);
  const auto arguments = files.readFile("/proc/self/cmdline", error, SIZE_MAX);
  ASSERT_TRUE(arguments) << error.message();
  EXPECT_FALSE(arguments->empty());
  EXPECT_EQ(files.readFile("/proc/self/cmdline", error), arguments);
  EXPECT_EQ(files.readFile("/proc/self/cmdline", error, 1), std::nullopt);
  EXPECT_EQ(error, std::errc::file_too_large);
}

TEST_F(FileManagerTest, RefusesToReadWhatIsNotARegularFileWithoutWaiting) {
  const auto fifo = dir / "defaults.plist";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  // Opening a FIFO that no process writes to would wait for a writer forever.
  std::error_code error;
  EXPECT_EQ(files.readFile(fifo, error), std::nullopt);
  EXPECT_EQ(error, FileManagerError::kNotRegularFile);
  EXPECT_EQ(error.message(), "not a regular file");
  EXPECT_EQ(files.readFile(dir.path(), error), std::nullopt);
  EXPECT_EQ(error, std::errc::is_a_directory);
  fs::create_symlink(fifo, dir / "link");  // a link is refused before what it points to is seen
  EXPECT_EQ(files.readFile(dir / "link", error), std::nullopt);
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  ASSERT_FALSE(files.writeFileAtomically(fifo, bytesOf("<plist/>")));  // replaces the FIFO
  EXPECT_EQ(files.readFile(fifo, error), bytesOf("<plist/>"));
}

TEST(FileManager, KeepsItsDirectoriesPrivateAndFollowsNoLinkPlantedInThem) {
  testing::TempDir dir;
  const FileManager files({"", (dir / "cache").string(), (dir / "config").string(), ""});
  const mode_t umask = ::umask(0);
  EXPECT_FALSE(files.ensureDirectory(files.cacheDirectory() / "sub"));
  ::umask(umask);
  fs::create_directories(files.configDirectory());
  fs::permissions(files.configDirectory(), fs::perms::all);
  EXPECT_FALSE(files.ensureDirectory(files.configDirectory()));  // tightened
  for (const auto& made :
       {files.cacheDirectory(), files.cacheDirectory() / "sub", files.configDirectory()}) {
    EXPECT_EQ(files.attributesOfItem(made)->mode & 07777, 0700u) << made;
  }

  // A link to a file outside is not written through; a link to a directory is not taken for one.
  const auto link = files.cacheDirectory() / "bag.plist";
  testing::writeTextFile(dir / "outside", "kept");
  fs::create_symlink(dir / "outside", link);
  EXPECT_EQ(files.writeFileAtomically(link, bytesOf("x")),
            std::errc::too_many_symbolic_link_levels);
  EXPECT_EQ(readTextFile(dir / "outside"), "kept");
  fs::create_directory_symlink(dir.path(), files.cacheDirectory() / "linked");
  EXPECT_EQ(files.ensureDirectory(files.cacheDirectory() / "linked/inner"),
            std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(fs::exists(dir / "inner"));
}

}  // namespace
}  // namespace orvex
