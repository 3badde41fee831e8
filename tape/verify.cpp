// Reads one volume back from tape and compares it with all that the site knows of it: the catalog
// record, the volume list, the digests of the contents. No destination is needed and nothing but
// the mark is written.
//
// "verify" starts it on the tape host; it detaches like a backup and leaves its findings in
// var/tape/verify.status.
#include "tape/verify.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <zul/host.h>
#include <zul/net.h>
#include <zul/tape.h>

#include <map>
#include <memory>
#include <string>

#include "base/fd.h"
#include "base/hash.h"
#include "base/json.h"
#include "base/log.h"
#include "base/pause.h"
#include "base/process.h"
#include "base/text.h"
#include "drive/drive.h"
#include "replication/target.h"
#include "tape/catalog.h"
#include "tape/restorelist.h"
#include "tape/tapecheck.h"
#include "tape/tapeio.h"
#include "tape/volumelist.h"

namespace {

constexpr long kMostComplaints = 1000;
constexpr int kRefreshMs = 500;
constexpr int kUnreadableBlocks = 100;  // one after the other: then the tape is given up

struct Volume {
  int drive, tape, number;
  base::HomePath folder() const { return base::HomePath("var/tape/drive.%i/tape.%i", drive, tape); }
  base::HomePath file(const char *suffix) const {
    return base::HomePath("var/tape/drive.%i/tape.%i/vol.%i%s", drive, tape, number, suffix);
  }
};

// What is known so far, and the records that tell it.
class Findings {
 public:
  explicit Findings(const Volume &volume) : volume_(volume), started_(time(nullptr)) {
    write("running");
  }

  void complain(const char *format, ...) __attribute__((format(printf, 2, 3))) {
    if (problems_++ >= kMostComplaints) return;
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    base::print(backuplog, "PROBLEM:  %s\n", text);
    if (first_.empty()) first_ = text;
  }
  void count(uint64_t files, uint64_t bytes) {
    packages_++;
    files_ += files;
    bytes_ += bytes;
    if (base::nowMs() - writtenMs_ >= kRefreshMs) write("running");
  }
  void countDigest() { digests_++; }
  long problems() const { return problems_; }

  // Prints the sum, marks the volume when it is whole. True then.
  bool conclude() {
    bool whole = problems_ == 0;
    base::print(backuplog,
                "%s:  drive %i, tape %i, volume %i: %" PRIu64 " packages, %" PRIu64
                " files, %" PRIu64 " bytes, %" PRIu64 " digests compared, %li problems\n",
                whole ? "VERIFIED" : "NOT VERIFIED", volume_.drive, volume_.tape, volume_.number,
                packages_, files_, bytes_, digests_, problems_);
    if (whole && !mark()) whole = false;
    if (!whole) unlink(volume_.file(".verified"));
    ended_ = time(nullptr);
    write(whole ? "done" : "failed");
    return whole;
  }

 private:
  bool mark() const {
    base::HomePath temporary = volume_.file(".verified.new");
    base::File file(fopen(temporary, "we"));
    bool good = file && fprintf(file.get(),
                                "verified=%" PRId64 " packages=%" PRIu64 " files=%" PRIu64
                                " bytes=%" PRIu64 " digests=%" PRIu64 "\n",
                                static_cast<int64_t>(time(nullptr)), packages_, files_, bytes_,
                                digests_) > 0;
    good = good && file.close() && rename(temporary, volume_.file(".verified")) == 0;
    if (!good)
      base::print(backuplog, "ERROR:  The mark %s cannot be written\n",
                  volume_.file(".verified").c_str());
    return good;
  }

  void write(const char *state) {
    writtenMs_ = base::nowMs();
    base::HomePath temporary("var/tape/verify.status.progress.new");
    base::File file(fopen(temporary, "we"));
    if (!file) return;
    FILE *out = file.get();
    fchmod(fileno(out), 0600);  // names of files are as private as the files
    fprintf(out,
            "{\"kind\":\"verify\",\"pid\":%i,\"state\":\"%s\",\"started\":%" PRId64
            ",\"updated\":%" PRId64 ",\"ended\":%" PRId64 ",\"drive\":%i,\"tape\":%i,\"volume\":%i",
            getpid(), state, static_cast<int64_t>(started_), static_cast<int64_t>(time(nullptr)),
            static_cast<int64_t>(ended_), volume_.drive, volume_.tape, volume_.number);
    fprintf(out,
            ",\"packages\":%" PRIu64 ",\"files\":%" PRIu64 ",\"bytes\":%" PRIu64
            ",\"digests\":%" PRIu64 ",\"problems\":%li,\"error\":",
            packages_, files_, bytes_, digests_, problems_);
    base::writeJsonText(out, first_.c_str());
    fputs("}\n", out);
    if (!file.close() || rename(temporary, base::HomePath("var/tape/verify.status.progress")) != 0)
      unlink(temporary);
  }

  Volume volume_;
  time_t started_, ended_ = 0;
  long long writtenMs_ = 0;
  uint64_t packages_ = 0, files_ = 0, bytes_ = 0, digests_ = 0;
  long problems_ = 0;
  std::string first_;
};

// Reads lines of a list one after the other; a list that is missing has none.
class Lines {
 public:
  explicit Lines(const char *path) : file_(fopen(path, "re")) {}
  bool there() const { return static_cast<bool>(file_); }
  bool next(char *line, size_t room) {
    if (!file_ || !fgets(line, static_cast<int>(room), file_.get())) return false;
    line[strcspn(line, "\n")] = '\0';
    return true;
  }

  // Goes on behind the next line that matches, and returns how many lines were passed over for it,
  // the first of which is then in passed. -1, and stays where it is, when there is none within
  // reach: the list goes on as if the question had not been asked.
  template <typename Match>
  long find(const Match &match, std::string *passed) {
    constexpr long kReach = 100000;
    long start = file_ ? ftell(file_.get()) : 0;
    char line[base::kPathMax];
    for (long count = 0; count < kReach && next(line, sizeof line); count++) {
      if (match(line)) return count;
      if (count == 0) *passed = line;
    }
    if (file_) fseek(file_.get(), start, SEEK_SET);
    return -1;
  }

 private:
  base::File file_;
};

// One file of one host whose packages are being read.
struct Reading {
  base::Hash hash;
  bool hashing = false;
  package header{};
  uint64_t seen = 0;
  bool awaitsMore() const { return seen < header.size; }
};

class Verifier {
 public:
  Verifier(const Volume &volume, Findings &findings)
      : volume_(volume), findings_(findings), list_(volume.file("")), sums_(volume.file(".sum")) {
    char kind[64] = "";
    hasSums_ =
        sums_.next(kind, sizeof kind) && strcmp(kind, "#xxh3-64") == 0 && base::Hash::available();
  }

  // Leaves the tape within the catalog copy, or (true) behind its mark.
  bool compareCatalog(int tapefd);
  void readData(int tapefd);

 private:
  bool readPackage(int tapefd);
  ssize_t readBlock(int tapefd) {
    block_++;
    return drive::readBlock(tapefd, data_, sizeof data_);
  }
  bool isHeader(ssize_t got) const;  // of the block read last
  void open(Reading &reading, const package &header);
  bool readSegment(int tapefd, Reading &reading);
  void compareLine(const package &header);
  void compareSum(Reading &reading);

  Volume volume_;
  Findings &findings_;
  Lines list_, sums_;
  bool hasSums_ = false;
  char data_[PACK_PIECE];  // the block read last
  long block_ = 0;         // its number
  bool ahead_ = false;     // it is a header that is still to be looked at
  int unreadable_ = 0;     // blocks, one after the other
  std::map<std::string, std::unique_ptr<Reading>> hosts_;
};

bool Verifier::compareCatalog(int tapefd) {
  tape::Catalog catalog;
  int volumes = catalog.load(volume_.folder().data());
  int at = (volume_.number - 1) / 2;
  if (volume_.number < 1 || volume_.number % 2 == 0 || at >= volumes) {
    findings_.complain("volume %i is not in the catalog of this tape", volume_.number);
    return false;
  }
  char block[CATLG_FIXED];
  ssize_t got = drive::readBlock(tapefd, block, sizeof block);
  if (got != CATLG_FIXED)
    findings_.complain("the catalog copy on tape cannot be read: %s",
                       got < 0 ? strerror(errno) : "wrong length");
  else if (memcmp(block, &catalog[at], CATLG_FIXED) != 0)
    findings_.complain("the catalog copy on tape differs from the catalog");
  return got == 0;
}

// Whether a line of the volume list speaks of a package.
bool speaksOf(const char *line, const package &header, const char *host, const char *name) {
  char copy[base::kPathMax];
  char *field[4];
  base::copyText(copy, sizeof copy, line);
  return insplit(field, copy, ':', 3) == 4 && strcmp(field[1], host) == 0 &&
         strtol(field[2], nullptr, 10) == header.sequence && strcmp(field[3], name) == 0;
}

void Verifier::compareLine(const package &header) {
  char host[sizeof header.fromhost], name[sizeof header.filename];
  tape::listHost(host, sizeof host, header.fromhost);
  tape::listName(name, sizeof name, header.filename);
  std::string passed;
  long missing =
      list_.find([&](const char *line) { return speaksOf(line, header, host, name); }, &passed);
  if (missing > 0)
    findings_.complain(
        "block %li: %li packages of the volume list are not on tape here, from %s on", block_,
        missing, passed.c_str());
  if (missing < 0)
    findings_.complain("block %li: %s:%i:%s is on tape and not in the volume list here", block_,
                       host, header.sequence, name);
}

// The lines stand in the order in which files came to their end, which is the order we meet them
// in. What is passed over are files that did not come whole, which was said.
void Verifier::compareSum(Reading &reading) {
  if (!reading.hashing || reading.seen < reading.header.size) return;
  reading.hashing = false;
  char wanted[base::kPathMax];
  char host[sizeof reading.header.fromhost], name[sizeof reading.header.filename];
  tape::listHost(host, sizeof host, reading.header.fromhost);
  tape::listName(name, sizeof name, reading.header.filename);
  snprintf(wanted, sizeof wanted, "%016" PRIx64 ":%s:%" PRIu64 ":%s", reading.hash.value(), host,
           static_cast<uint64_t>(reading.header.size), name);
  findings_.countDigest();
  std::string found, passed;
  auto ofThisFile = [&](const char *line) {
    const char *at = strchr(line, ':');  // digest:host:size:name
    size_t length = strlen(host);
    if (!at || strncmp(at + 1, host, length) != 0 || at[1 + length] != ':') return false;
    at = strchr(at + 2 + length, ':');
    if (!at || strcmp(at + 1, name) != 0) return false;
    found = line;
    return true;
  };
  if (sums_.find(ofThisFile, &passed) < 0)
    findings_.complain("%s:%s has no digest", host, name);
  else if (found != wanted)
    findings_.complain("%s:%s: content on tape is not what was backed up (digest %s, written %s)",
                       host, name, wanted, found.c_str());
}

bool Verifier::isHeader(ssize_t got) const {
  return got == PACK_SIZE && memcmp(data_, "ZuL!", 4) == 0;
}

bool Verifier::readSegment(int tapefd, Reading &reading) {
  for (size_t left = target::segmentLength(reading.header); left > 0;) {
    size_t used = left < PACK_PIECE ? left : PACK_PIECE;
    ssize_t wanted = static_cast<ssize_t>((used + 511) / 512 * 512);
    ssize_t got = readBlock(tapefd);
    if (got != wanted) {
      findings_.complain("block %li: %s:%s breaks off: %s", block_, reading.header.fromhost,
                         reading.header.filename,
                         got < 0    ? strerror(errno)
                         : got == 0 ? "the data ends"
                                    : "a block of another length");
      // Where the next package begins nothing more is lost.
      ahead_ = isHeader(got);
      return false;
    }
    if (reading.hashing) reading.hash.add(data_, used);
    reading.seen += used;
    left -= used;
  }
  return true;
}

// Begins, or goes on with, the file of a host that a header belongs to.
void Verifier::open(Reading &reading, const package &header) {
  if (header.sequence == 0) {
    if (reading.awaitsMore())
      findings_.complain("%s:%s is not complete", header.fromhost, reading.header.filename);
    reading.hashing = hasSums_ && (header.type == 0 || header.type == 2) && reading.hash.begin();
    reading.seen = 0;
  } else if (strcmp(reading.header.filename, header.filename) != 0 ||
             reading.header.sequence + 1 != header.sequence) {
    findings_.complain("block %li: package %i of %s:%s does not follow its predecessor", block_,
                       header.sequence, header.fromhost, header.filename);
    reading.hashing = false;
  }
  reading.header = header;
}

// False at the end of the data, or where nothing more can be made of it.
bool Verifier::readPackage(int tapefd) {
  ssize_t got = ahead_ ? PACK_SIZE : readBlock(tapefd);
  ahead_ = false;
  if (got == 0) return false;
  if (!isHeader(got)) {
    findings_.complain("block %li: no package begins here: %s", block_,
                       got < 0 ? strerror(errno) : "other data");
    unreadable_ = got < 0 ? unreadable_ + 1 : 0;
    return unreadable_ < kUnreadableBlocks;
  }
  unreadable_ = 0;
  package header;
  unpackPackage(data_, &header);
  compareLine(header);
  std::unique_ptr<Reading> &reading = hosts_[header.fromhost];
  if (!reading) reading = std::make_unique<Reading>();
  open(*reading, header);
  if (!readSegment(tapefd, *reading)) {
    reading->hashing = false;
    reading->seen = header.size;  // said already
    return true;
  }
  compareSum(*reading);
  findings_.count(header.sequence == 0, target::segmentLength(header));
  return true;
}

void Verifier::readData(int tapefd) {
  // Blocks that are no package could go on for a whole tape; the complaints say enough long before.
  while (findings_.problems() < kMostComplaints && readPackage(tapefd)) {
  }
  for (const auto &[host, reading] : hosts_)
    if (reading->awaitsMore())
      findings_.complain("%s:%s is not complete", host.c_str(), reading->header.filename);
  char line[base::kPathMax];
  if (!list_.there()) findings_.complain("the volume list %s is missing", volume_.file("").c_str());
  long missing = 0;
  while (list_.next(line, sizeof line))
    if (missing++ == 0) findings_.complain("the tape ends before %s", line);
  if (missing > 1)
    findings_.complain("%li more lines of the volume list are not on tape", missing - 1);
  if (!hasSums_)
    base::print(backuplog,
                "NOTICE:  No digests were recorded for this volume, or the hash library is "
                "missing: contents were read, not compared\n");
}

bool verify(const Volume &volume, char *device) {
  Findings findings(volume);
  Verifier verifier(volume, findings);
  if (mtFSF(device, volume.number) != 0) {
    findings.complain("the tape cannot be positioned to volume %i", volume.number);
    return findings.conclude();
  }
  {
    tape::OpenDrive drive(drive::openDrive(device, O_RDONLY));
    if (!drive) {
      findings.complain("the drive %s cannot be opened: %s", device, strerror(errno));
      return findings.conclude();
    }
    bool atData = verifier.compareCatalog(drive.get());
    if (!atData && drive::operate(drive.get(), MTFSF, 1) != 0)
      findings.complain("the data of the volume cannot be reached: %s", strerror(errno));
    else
      verifier.readData(drive.get());
  }
  mtRewind(device);
  return findings.conclude();
}

}  // namespace

int goVerify(char *rest) {
  char *word[3];
  if (wssplit(word, rest, 3) < 3) {
    base::print(stderr, "ERROR:  Insufficient arguments: verify DRIVE TAPE VOLUME\n");
    return 1;
  }
  Volume volume{base::decimal(word[0]), base::decimal(word[1]), base::decimal(word[2])};
  char device[256];
  if (getTapePath(volume.drive, device) != 0 || tape::checkInserted(volume.drive, volume.tape) != 0)
    return -1;
  base::print(stderr, "Reading volume %i back.  See %s\n", volume.number,
              base::HomePath("var/tape/verify.status").c_str());
  // A follower that looks right after the acceptance must not take an earlier run's record for this
  // one's.
  unlink(base::HomePath("var/tape/verify.status.progress"));
  base::print(stderr, "TRANSFER OK\n");
  if (mkDaemon() != 0) return -1;
  FILE *status = fopen(base::HomePath("var/tape/verify.status"), "we");
  if (!status) return -1;
  setvbuf(status, nullptr, _IOLBF, BUFSIZ);
  backuplog = fplog = status;
  dup2(fileno(status), STDERR_FILENO);
  return verify(volume, device) ? 0 : -1;
}
