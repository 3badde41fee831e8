// zul get and zul put: files of a home over the console, so that they work for other hosts too.
#include <errno.h>
#include <string.h>

#include "console/commands.h"
#include "console/places.h"
#include "console/text.h"

namespace console {

namespace {

std::string reason(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.empty() ? "the daemon gave no reason" : oneLine(text);
}

}  // namespace

Exit getFile(const Target &target, const std::string &remote, const std::string &local) {
  Connection connection(target);
  std::string why;
  std::optional<std::string> content = connection.fetch(remote, &why);
  if (!content) throw Failure(Exit::failed, "cannot get " + remote + ": " + reason(why));
  if (local.empty() || local == "-")
    printOut(*content);
  else
    writeWhole(local, *content, 0600);
  return Exit::done;
}

void storeFile(Connection &connection, const std::string &remote, const std::string &content) {
  connection.send("HOST put " + remote + " " + std::to_string(content.size()));
  std::string text;
  auto collect = [&](std::string_view piece) { text += piece; };
  Outcome outcome = connection.receive(collect, false);
  if (outcome.accepted) {
    connection.sendBytes(content);
    text.clear();
    outcome = connection.receive(collect, true);
  }
  if (!outcome.ended)
    throw Failure(Exit::noConnection, "the connection ended before " + remote + " was stored");
  if (outcome.status != 0)
    throw Failure(Exit::failed, "cannot put " + remote + ": " + reason(text));
}

Exit putFile(const Target &target, const std::string &local, const std::string &remote) {
  std::optional<std::string> content = readWhole(local);
  if (!content) throw Failure(Exit::failed, "cannot read " + local + ": " + strerror(errno));
  Connection connection(target);
  storeFile(connection, remote, *content);
  return Exit::done;
}

}  // namespace console
