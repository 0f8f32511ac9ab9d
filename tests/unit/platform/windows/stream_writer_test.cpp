#include "platform/windows/process/stream_writer.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/windows/files/disk_file.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

// Puts another handle in the place of standard output.
class OutputTo {
 public:
  explicit OutputTo(HANDLE handle) : before_(GetStdHandle(STD_OUTPUT_HANDLE)) {
    SetStdHandle(STD_OUTPUT_HANDLE, handle);
  }
  ~OutputTo() { SetStdHandle(STD_OUTPUT_HANDLE, before_); }
  OutputTo(const OutputTo&) = delete;
  OutputTo& operator=(const OutputTo&) = delete;

 private:
  HANDLE before_;
};

TEST(StreamWriter, NeverWaitsForTheReaderOfAPipe) {
  HANDLE reader = nullptr;
  HANDLE writer = nullptr;
  ASSERT_NE(CreatePipe(&reader, &writer, nullptr, 4096), 0);
  const OutputTo output(writer);
  ASSERT_TRUE(IsFileOrPipe(STD_OUTPUT_HANDLE));
  StreamWriter stream(STD_OUTPUT_HANDLE);
  const std::string much(std::size_t{1} << 20, 'x');
  std::size_t taken = stream.Write("line\n");
  EXPECT_EQ(taken, 5U);
  for (int i = 0; i < 5; ++i) taken += stream.Write(much);
  EXPECT_GE(taken, std::size_t{64} * 1024);
  EXPECT_LT(taken, std::size_t{5} * 64 * 1024 + 5);
  // What was taken is there, and makes room for more.
  std::string there(taken, '\0');
  for (std::size_t size = 0; size < there.size();) {
    DWORD got = 0;
    ASSERT_NE(::ReadFile(reader, there.data() + size, static_cast<DWORD>(there.size() - size), &got, nullptr),
              0);
    size += got;
  }
  EXPECT_TRUE(there == "line\n" + std::string(taken - 5, 'x'));
  EXPECT_EQ(stream.Write("again\n"), 6U);
  CloseHandle(reader);
  for (int i = 0; i < 1000 && stream.Write("nobody\n") != 0; ++i) Sleep(1);
  EXPECT_EQ(stream.Write("nobody\n"), 0U);
  CloseHandle(writer);
}

TEST(StreamWriter, AFileTakesAll) {
  const TempFolder folder;
  const OpenedFile file =
      OpenDiskFile(folder / "output", {.access = GENERIC_WRITE, .disposition = CREATE_NEW});
  ASSERT_TRUE(file.file.IsOpen());
  const OutputTo output(HandleOf(file.file));
  StreamWriter stream(STD_OUTPUT_HANDLE);
  const std::string much(std::size_t{1} << 20, 'x');
  EXPECT_EQ(stream.Write(much), much.size());
  EXPECT_EQ(ReadFile(folder / "output"), much);
}

TEST(StreamWriter, WhatIsNoStreamTakesNothing) {
  const OutputTo output(nullptr);
  EXPECT_FALSE(IsFileOrPipe(STD_OUTPUT_HANDLE));
  StreamWriter stream(STD_OUTPUT_HANDLE);
  EXPECT_EQ(stream.Write("x"), 0U);
}

}  // namespace
}  // namespace trabex
