// zul multicast doctor: has the sending host send datagrams to the group while all hosts of a job
// listen for them, and shows what each of them answers.
#include <sodium.h>

#include "base/pause.h"
#include "console/fields.h"
#include "console/multicastcheck.h"
#include "console/multicastrun.h"
#include "console/text.h"

namespace console {

namespace {

constexpr int kListenSeconds = 3;
constexpr int kAnswerSeconds = 10;
constexpr int kSendSeconds = 600;  // ends before, when the connection does
constexpr int kBeginMs = 10000;
constexpr int kLookMs = 200;

std::string newToken() {
  unsigned char bytes[8];
  char text[2 * sizeof bytes + 1];
  randombytes_buf(bytes, sizeof bytes);
  sodium_bin2hex(text, sizeof text, bytes, sizeof bytes);
  return text;
}

// The first line of what the sender says; it goes on sending behind it.
std::string beginSending(Connection &connection, const std::string &token) {
  std::string text;
  connection.send("MREPL probe send " + token + " " + std::to_string(kSendSeconds));
  Outcome outcome;
  for (long long end = base::nowMs() + kBeginMs; base::nowMs() < end && !outcome.ended;) {
    outcome = connection.receive([&](std::string_view bytes) { text += bytes; }, true, kLookMs);
    if (text.find('\n') != text.npos) break;
  }
  return text.substr(0, text.find('\n'));
}

void measure(Connection &connection, const std::string &number, SenderFacts *facts) {
  nlohmann::json said =
      nlohmann::json::parse(connection.ask("MREPL measure " + number).text, nullptr, false);
  if (!said.is_object()) return;
  facts->files = countOf(said, "files");
  facts->bytes = countOf(said, "bytes");
}

void show(const SenderFacts &sender, const std::vector<Examination> &examinations) {
  if (!sender.interface.empty())
    printOut("Sending through " + sender.interface + ", " + sender.address + ": " +
             countText(sender.files, "file") + " and folders, " + sizeText(sender.bytes) + "\n");
  printOut(examinationText(examinations));
}

}  // namespace

Exit runMulticastDoctor(const MulticastDoctorOptions &options) {
  MulticastJob job = fetchMulticastJob(options.target, options.number);
  std::string token = newToken();
  Connection connection(options.target), sending(options.target);
  SenderFacts sender = parseSenderFacts(beginSending(sending, token));
  measure(connection, options.number, &sender);
  std::string path = plainPath(job.prefix.empty() ? "/" : job.prefix);
  std::map<std::string, HostAnswer> answers =
      askHosts(options.target, job.hosts,
               "MREPL probe listen " + token + " " + std::to_string(kListenSeconds) + " " + path,
               kAnswerSeconds);
  std::vector<Examination> examinations = {examineSender(sender)};
  bool well = examinations[0].well();
  for (const std::string &host : job.hosts) {
    examinations.push_back(examine(sender, host, answers[host]));
    well = well && examinations.back().well();
  }
  if (options.json)
    printOut(examinationJson(examinations)
                 .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
             "\n");
  else
    show(sender, examinations);
  return well ? Exit::done : Exit::failed;
}

}  // namespace console
