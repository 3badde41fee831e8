// The encryption library: three functions that stand for writen, readn and readnline once both ends
// of a stream have agreed to encrypt it. docs/protocols/encryption.md has every byte.
//
// The module finds them by name; they have its hooks' form. A stream belongs to one process at a
// time, or to one for each direction; forked processes may take turns once the first call is done.
//
// A SIGALRM may jump out of any of them: their frames hold plain data, they take no locks and no
// memory from the heap. The half of the stream that was jumped out of is given up: what it had in
// hand is unknown.
#pragma once
#include <stddef.h>

extern "C" {

// Writes n bytes. n; -1 for a time-out (60 s without progress) or any failure.
__attribute__((visibility("default"))) int crywriten(int fd, void *buf, size_t n);
// Reads exactly n bytes. n; -1 the wait failed; -2 60 s of silence; -4 the stream has ended, or is
// not what the peer sent. After a time-out the call can be repeated when nothing of it had arrived.
__attribute__((visibility("default"))) int cryreadn(int fd, void *buf, size_t n);
// Reads one line; what follows it is kept for the next call. Bytes stored, line feed included; one
// more than stored when the buffer filled or the peer ended the stream inside a line; 0 when the
// peer has ended it; 1 for size <= 1; -1 the wait failed; -2 30 s of silence; -3 the stream was
// cut, or is not what the peer sent.
__attribute__((visibility("default"))) int cryreadnline(int fd, void *buf, size_t size);
}

namespace scram {

// The limits after which a silent peer counts as lost; in a table so that tests can lower them.
struct Timeouts {
  int streamMs;  // one wait of crywriten or cryreadn
  int lineMs;    // one wait of cryreadnline
};
extern Timeouts timeouts;

}  // namespace scram
