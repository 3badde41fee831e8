// Checks that an operator makes before a run, on its hosts: is a datagram to the group heard?
#pragma once

namespace mrepl {

constexpr int kProbePort = 2347;

// "listen TOKEN SECONDS PATH": joins the group as a receiver does, waits for the datagram with the
// token, and answers with a JSON object about this host.
int probeListen(const char *words);
// "send TOKEN SECONDS": answers with a JSON object about this host, then sends such datagrams until
// the time is up or the operator closes.
int probeSend(const char *words);
// How many files and bytes a job would send, as a JSON object.
int measureJob(const char *number);

}  // namespace mrepl
