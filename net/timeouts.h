// The limits after which a silent peer counts as lost. They are part of the dialogue with installed
// peers and no setting; they stand in a table so that the tests can lower them.
#pragma once

namespace net {

struct Timeouts {
  int streamMs;  // one wait of readn or writen
  int lineMs;    // one byte of readnline
  int connectS;  // connecting to an agent
  int stepMs;    // one step of the gatherer's dialogue
  int fileMs;    // the gatherer's timer while a file is sent, begun anew with every second of
                 // progress
  int startMs;   // the first process of the list generator
  int listMs;    // a request list that does not appear
  int tornMs;    // the rest of a line of the request list that was seen half
  int nudgeMs;   // an answer to "Next" that has to wait for the list: below streamMs, or the peer
                 // gives up
  int greetMs;   // a peer that paces itself by readiness connects to the gatherer it asked for
  int portMs;    // the port of a gatherer that is about to give it back (sound pace only)
  int storedMs;  // the word of a member that it has stored a pushed backup list
};

extern Timeouts timeouts;

}  // namespace net
