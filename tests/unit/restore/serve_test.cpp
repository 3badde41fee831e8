// The tape side of the dialogue: what it answers a played receiver, byte by byte, from a plain
// stream and from a drive.
#include <signal.h>
#include <sys/socket.h>

#include <thread>

#include "base/pause.h"
#include "net/timeouts.h"
#include "tapes.h"

using support::captureStderr;
using support::readFile;
using support::writeFile;
using tapes::blocksOf;
using tapes::File;
using tapes::pattern;

namespace {

class Serve : public tapes::TapeTest {
 protected:
  void SetUp() override {
    TapeTest::SetUp();
    behave("classic");
  }

  // Serves the list from the stream (or, when there is none, from the drive) to a receiver that is
  // played on the data port.
  int serve(const std::string &list, const std::string &stream,
            const std::function<void(int sd)> &play) {
    writeFile(path("list"), list);
    int port = ZULSRV_PORT;
    int listener = support::listenOn(port);
    EXPECT_GE(listener, 0);
    std::thread receiver([&] {
      int sd = accept(listener, nullptr, nullptr);
      play(sd);
      close(sd);
    });
    int tape = stream.empty() ? openData() : streamOf(stream);
    int result = 0;
    said = captureStderr(
        [&] { result = restoreServ(tape, "127.0.0.1", "ignored", path("list").c_str()); });
    stream.empty() ? drive::closeDrive(tape) : close(tape);
    receiver.join();
    close(listener);
    return result;
  }
  int streamOf(const std::string &bytes) {
    writeFile(path("stream"), bytes);
    return open(path("stream").c_str(), O_RDONLY | O_CLOEXEC);
  }

  static void say(int sd, const std::string &line) { (void)!write(sd, line.data(), line.size()); }
  static std::string hear(int sd, size_t n) {
    std::string bytes(n, '\0');
    size_t got = 0;
    while (got < n) {
      ssize_t now = recv(sd, bytes.data() + got, n - got, 0);
      if (now <= 0) break;
      got += static_cast<size_t>(now);
    }
    bytes.resize(got);
    return bytes;
  }
  // Asks for the next header: its name, or "end", or what came instead.
  static std::string next(int sd, std::string *raw = nullptr) {
    say(sd, "Next\n");
    std::string bytes = hear(sd, PACK_SIZE);
    if (raw) *raw = bytes;
    if (bytes.size() < PACK_SIZE) return "short " + std::to_string(bytes.size());
    package header;
    unpackPackage(bytes.data(), &header);
    return header.magic == PACK_EOL_MAGIC ? "end" : header.filename;
  }
  static std::string get(int sd, size_t n) {
    say(sd, "Get\n");
    return hear(sd, n);
  }
  // True when nothing arrives although the other side had every reason to be ready.
  static bool isSilent(int sd) {
    char byte;
    return recv(sd, &byte, 1, MSG_DONTWAIT) < 0;
  }
  static std::string joined(const std::vector<std::string> &blocks) {
    std::string all;
    for (const std::string &block : blocks) all += block;
    return all;
  }
  bool saidLine(const std::string &line) const { return said.find(line) != std::string::npos; }

  std::string said;
};

TEST_F(Serve, AnEmptyListIsAnsweredByItsEnd) {
  alone([&] {
    std::string raw;
    EXPECT_EQ(serve("", "x", [&](int sd) { EXPECT_EQ(next(sd, &raw), "end"); }), 0);
    std::string wanted(PACK_SIZE, '\0');
    package end{};
    end.magic = PACK_EOL_MAGIC;
    packPackage(wanted.data(), &end);
    EXPECT_EQ(raw, wanted);
    EXPECT_EQ(said, "INFO: Entering restoreServ\nINFO:  Got Next\n");
  });
}

TEST_F(Serve, TheHeaderGoesOutAsItStandsOnTapeAndTheSegmentWithoutItsPadding) {
  alone([&] {
    std::vector<std::string> blocks = blocksOf(File{"h", "/f", pattern(1000)}, 0);
    ASSERT_EQ(blocks[1].size(), 1024u);
    blocks[0][519] = 'z';  // what stands behind the fields goes along
    std::string second = joined(blocksOf(File{"h", "/g", "g"}, 0));
    int result = serve("/f\n/g\n", joined(blocks) + second, [&](int sd) {
      std::string raw;
      EXPECT_EQ(next(sd, &raw), "/f");
      EXPECT_EQ(raw, blocks[0]);
      EXPECT_EQ(get(sd, 1000), pattern(1000));
      EXPECT_EQ(next(sd), "/g");
      EXPECT_EQ(get(sd, 1), "g");
      EXPECT_EQ(next(sd), "end");
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(said,
              "INFO: Entering restoreServ\n"
              "INFO:  Got Next\nTrying to restore /f\nINFO:  Is this the desired file? /f\n"
              "Send Head:  /f   Toread = 1000\n"
              "INFO:  Got Get  Sending:  /f   Size: 1000   Seq: 0  Toread: 1000\n"
              "INFO:  Got Next\nTrying to restore /g\nINFO:  Is this the desired file? /g\n"
              "Send Head:  /g   Toread = 1\n"
              "INFO:  Got Get  Sending:  /g   Size: 1   Seq: 0  Toread: 1\n"
              "INFO:  Got Next\n");
  });
}

TEST_F(Serve, SizesAroundTheBlocks) {
  alone([&] {
    std::vector<File> files;
    std::string list;
    for (size_t size : {0u, 1u, 511u, 512u, 513u, 8191u, 8192u, 8193u, 16384u, 1048575u}) {
      files.push_back({"h", "/f" + std::to_string(size), pattern(size)});
      list += files.back().name + "\n";
    }
    EXPECT_EQ(serve(list, joined(blocksOf(files)),
                    [&](int sd) {
                      for (const File &file : files) {
                        EXPECT_EQ(next(sd), file.name);
                        EXPECT_EQ(get(sd, file.data.size()), file.data) << file.name;
                      }
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
  });
}

TEST_F(Serve, ALargeFileIsOneExchangeForEachSegment) {
  alone([&] {
    File big{"h", "/big", pattern(2 * PACK_CHUNK + 10)};
    EXPECT_EQ(serve("/big\n/big\n/big\n", joined(blocksOf(std::vector<File>{big})),
                    [&](int sd) {
                      std::string data;
                      for (size_t n : {PACK_CHUNK, PACK_CHUNK, 10}) {
                        EXPECT_EQ(next(sd), "/big");
                        data += get(sd, n);
                      }
                      EXPECT_EQ(data, big.data);
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
  });
}

TEST_F(Serve, SegmentsBehindFourGigabytesAreServedUnderSound) {
  behave("sound");
  alone([&] {
    package header = tapes::headerOf(File{"h", "/huge", ""}, 4100);
    header.size = 4100ull * PACK_CHUNK + 10;
    std::string raw(PACK_SIZE, '\0');
    packPackage(raw.data(), &header);
    EXPECT_EQ(serve("/huge\n", raw + pattern(512),
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/huge");
                      EXPECT_EQ(get(sd, 10), pattern(10));
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
    EXPECT_TRUE(saidLine("Sending:  /huge   Size: 4299161610   Seq: 4100  Toread: 10\n")) << said;
  });
}

TEST_F(Serve, NextWithoutGetPassesOverTheSegment) {
  alone([&] {
    std::string stream =
        joined(blocksOf(std::vector<File>{{"h", "/f", pattern(20000)}, {"h", "/g", "g"}}));
    EXPECT_EQ(serve("/f\n/g\n", stream,
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/f");
                      EXPECT_EQ(next(sd), "/g");
                      EXPECT_EQ(get(sd, 1), "g");
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
    EXPECT_TRUE(saidLine("Ignoring:  /f   Toread = 20000\n"));
  });
}

TEST_F(Serve, FilesThatAreNotOnTheListArePassedOver) {
  alone([&] {
    std::string stream = joined(
        blocksOf(std::vector<File>{{"h", "/a", pattern(9000)}, {"h", "/b", ""}, {"h", "/g", "g"}}));
    EXPECT_EQ(serve("/g\n", stream,
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/g");
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
    EXPECT_TRUE(
        saidLine("Trying to restore /g\n"
                 "INFO:  Is this the desired file? /a\nIgnoring:  /a   Toread = 9000\n"
                 "INFO:  Is this the desired file? /b\nIgnoring:  /b   Toread = 0\n"
                 "INFO:  Is this the desired file? /g\nSend Head:  /g   Toread = 1\n"))
        << said;
  });
}

TEST_F(Serve, LinesThatAreNoQuestionAreIgnored) {
  alone([&] {
    std::string stream = joined(blocksOf(std::vector<File>{{"h", "/f", "f"}}));
    EXPECT_EQ(serve("/f\n", stream,
                    [&](int sd) {
                      say(sd, "Hello\n");
                      say(sd, "Failed -3 something\n");
                      EXPECT_EQ(next(sd), "/f");
                      EXPECT_EQ(get(sd, 1), "f");
                      EXPECT_TRUE(isSilent(sd));
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
  });
}

TEST_F(Serve, ClassicEndsAtTheFirstNameThatIsNotOnTape) {
  alone([&] {
    std::string stream = joined(blocksOf(std::vector<File>{{"h", "/a", "a"}, {"h", "/b", "b"}}));
    int result = serve("/none\n/b\n", stream, [&](int sd) { EXPECT_EQ(next(sd), "short 0"); });
    EXPECT_EQ(result, -1);
  });
}

TEST_F(Serve, SoundGoesOnWithoutANameThatIsNotOnTape) {
  writeTape(blocksOf(std::vector<File>{{"h", "/a", "a"}, {"h", "/b", pattern(9000)}}));
  behave("sound");
  alone([&] {
    EXPECT_EQ(serve("#host=h\n/none\n/b\n", "",
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/b");
                      EXPECT_EQ(get(sd, 9000), pattern(9000));
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
  });
}

// Classic compares names only; under "sound" the host that a file is from counts.
TEST_F(Serve, TheSamePathOfAnotherHost) {
  writeTape(blocksOf(std::vector<File>{{"a", "/etc/x", "a"}, {"b", "/etc/x", "b"}}));
  auto first = [&](const std::string &list) {
    std::string content;
    alone([&] {
      EXPECT_EQ(serve(list, "",
                      [&](int sd) {
                        EXPECT_EQ(next(sd), "/etc/x");
                        writeFile(path("content"), get(sd, 1));
                        EXPECT_EQ(next(sd), "end");
                      }),
                0);
    });
    return readFile(path("content"));
  };
  EXPECT_EQ(first("/etc/x\n"), "a");
  behave("sound");
  EXPECT_EQ(first("#host=b\n/etc/x\n"), "b");
}

TEST_F(Serve, ATapeThatBreaksOffWithinASegmentIsToldInClassic) {
  alone([&] {
    std::string stream = joined(blocksOf(std::vector<File>{{"h", "/f", pattern(20000)}}));
    errno = 0;
    EXPECT_EQ(serve("/f\n", stream.substr(0, 520 + 8192),
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/f");
                      EXPECT_EQ(get(sd, 20000).size(), 8192u);
                    }),
              -2);
    EXPECT_NE(hostLog().find("ERROR:  GET error\n"), std::string::npos);
    clearLogs();
    EXPECT_EQ(serve("/f\n", stream.substr(0, 520 + 16384 + 100),
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/f");
                      EXPECT_EQ(get(sd, 20000).size(), 16384u);
                    }),
              -2);
    EXPECT_NE(hostLog().find("ERROR:  GET error3\n"), std::string::npos);
  });
}

TEST_F(Serve, AReceiverThatIsGoneEndsIt) {
  alone([&] {
    EXPECT_EQ(serve("/f\n", "x", [](int) {}), -2);
    EXPECT_TRUE(saidLine("Server receive error: "));
    EXPECT_TRUE(saidLine("Buff: ><\n"));
  });
}

TEST_F(Serve, SoundTakesTheEndOfTheStreamAtItsWord) {
  behave("sound");
  alone([&] {
    long long began = base::nowMs();
    EXPECT_EQ(serve("/f\n", "x", [](int) {}), -2);
    EXPECT_LT(base::nowMs() - began, 10'000) << "looked again and again";
    EXPECT_TRUE(saidLine("Server receive error: 0, errno = ")) << said;
  });
}

TEST_F(Serve, AReceiverThatSaysNothingIsNotWaitedForForEver) {
  alone([&] {
    net::timeouts.lineMs = 50;
    EXPECT_EQ(serve("/f\n", "x",
                    [](int sd) {
                      char byte;
                      (void)!recv(sd, &byte, 1, 0);
                    }),
              -2);
    EXPECT_TRUE(saidLine("Server receive error: -2, errno = ")) << said;
  });
}

TEST_F(Serve, AReceiverThatClosesWithinASegmentEndsIt) {
  writeTape(blocksOf(std::vector<File>{{"h", "/f", pattern(16 * PACK_CHUNK)}}));
  std::string list;
  for (int at = 0; at < 17; at++) list += "/f\n";
  for (const char *behaviour : {"classic", "sound"}) {
    behave(behaviour);
    alone([&] {
      EXPECT_EQ(serve(list, "",
                      [&](int sd) {
                        EXPECT_EQ(next(sd), "/f");
                        get(sd, 100);
                      }),
                -2)
          << behaviour;
    });
  }
}

TEST_F(Serve, NoReceiverIsNoRestore) {
  site("behaviour = classic\npause.receiver-start = 0\n");
  alone([&] {
    int tape = streamOf("x");
    writeFile(path("list"), "");
    captureStderr([&] { EXPECT_EQ(restoreServ(tape, "127.0.0.1", "", path("list").c_str()), -1); });
  });
}

TEST_F(Serve, WithoutItsListItClosesTheConnection) {
  alone([&] {
    int port = ZULSRV_PORT;
    int listener = support::listenOn(port);
    int tape = streamOf("x");
    captureStderr([&] { EXPECT_EQ(restoreServ(tape, "127.0.0.1", "", path("none").c_str()), -2); });
    int sd = accept(listener, nullptr, nullptr);
    EXPECT_EQ(hear(sd, 1), "");
  });
}

TEST_F(Serve, ClassicWaitsForTheReceiverToOpenItsPort) {
  site("behaviour = classic\npause.receiver-start = 150\n");
  alone([&] {
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(serve("", "x", [&](int sd) { EXPECT_EQ(next(sd), "end"); }), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
  });
}

TEST_F(Serve, ReadErrorDoesNothing) {
  EXPECT_EQ(readError(EIO), 0);
  EXPECT_EQ(readError(0), 0);
}

// What the receiver says of a file it cannot make reaches the results, and nothing more of it is
// sent.
TEST_F(Serve, AFailureOfTheReceiverIsReported) {
  writeTape(blocksOf(std::vector<File>{{"h", "/big", pattern(2 * PACK_CHUNK)}, {"h", "/g", "g"}}));
  behave("sound");
  alone([&] {
    EXPECT_EQ(serve("#host=h\n/big\n/big\n/big\n/g\n", "",
                    [&](int sd) {
                      EXPECT_EQ(next(sd), "/big");
                      EXPECT_EQ(get(sd, PACK_CHUNK).size(), size_t{PACK_CHUNK});
                      say(sd, "Failed -11 cannot write: No space left on device\n");
                      EXPECT_EQ(next(sd), "/g");
                      EXPECT_EQ(get(sd, 1), "g");
                      EXPECT_EQ(next(sd), "end");
                    }),
              0);
  });
}

}  // namespace
