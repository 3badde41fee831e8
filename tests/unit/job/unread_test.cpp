// Files that cannot be read on their host: what the job says of them.
#include <sys/socket.h>
#include <sys/stat.h>

#include "jobtest.h"

namespace {

using jobtest::File;

// The header of a file that could not be opened, or, without a kind, of one that had vanished.
std::string headerOf(const std::string &name, uint32_t mode) {
  std::string raw = jobtest::header(File{name, "", 5}, 0);
  for (size_t at = 0; at < 4; at++) raw[272 + at] = static_cast<char>(mode >> (24 - 8 * at));
  return raw;
}

// Answers "Next" with each header in turn, and "Get" with the same once more.
void serveHeaders(int sd, const std::vector<std::string> &headers) {
  size_t next = 0;
  std::string line;
  for (char c; recv(sd, &c, 1, 0) == 1;) {
    line += c;
    if (c != '\n') continue;
    std::string answer;
    if (line == "Next\n") {
      answer = next < headers.size() ? headers[next] : "St0P" + std::string(PACK_SIZE - 4, '\0');
    } else if (line == "Get\n") {
      answer = headers[next++];
    }
    line.clear();
    if (send(sd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
  }
}

class UnreadFiles : public jobtest::JobTest {
 protected:
  void run(const std::vector<std::string> &headers) {
    loadTape();
    defineJob({"127.0.0.2"});
    alone([&] {
      jobtest::Client client("127.0.0.2",
                             {{}, [&](int sd) { serveHeaders(sd, headers); }, true, true});
      EXPECT_EQ(backup(), 0) << jobLog();
    });
  }
  int warnings() const { return jobtest::count(jobLog(), "WARNING:  Not saved"); }
};

const std::vector<std::string> kSome = {headerOf("/locked", S_IFREG | 0600),
                                        headerOf("/gone", 0600), headerOf("/link", S_IFLNK | 0777),
                                        headerOf("/socket", S_IFSOCK | 0755)};

TEST_F(UnreadFiles, SoundAreNamedInTheJobsLog) {
  behave("sound");
  run(kSome);
  EXPECT_NE(jobLog().find("WARNING:  Not saved, it cannot be read on 127.0.0.2: /locked\n"
                          "WARNING:  Not saved, it cannot be read on 127.0.0.2: /link\n"),
            std::string::npos)
      << jobLog();
  EXPECT_EQ(warnings(), 2);
}

TEST_F(UnreadFiles, SoundBeyondTheFirstHundredAreCounted) {
  behave("sound");
  std::vector<std::string> headers;
  for (int at = 0; at < 103; at++)
    headers.push_back(headerOf("/f" + std::to_string(at), S_IFREG | 0600));
  run(headers);
  EXPECT_EQ(warnings(), 101);
  EXPECT_NE(jobLog().find("WARNING:  Not saved, 103 files in all cannot be read on 127.0.0.2\n"),
            std::string::npos)
      << jobLog();
}

TEST_F(UnreadFiles, ClassicAreOnTheTapeWithoutAWord) {
  run(kSome);
  EXPECT_EQ(warnings(), 0);
}

}  // namespace
