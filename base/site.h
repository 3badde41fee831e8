// The site file, etc/ZULsite under ZULhome: which behaviour holds in which area, and values of its
// own.
//
// Some behaviours of this system lose data, hang or let strangers in on today's networks, and
// installed agents and tapes expect them all the same: those are "classic", the default. "sound"
// replaces them area by area. The code asks sound(Area::x) at the one line where the two differ.
#pragma once

namespace base {

enum class Area { stream, backup, restore, receive, stores, multicast, security, pace, kCount };

// The site file is read once per process, at the first question.
bool sound(Area area);

// The area as the site file writes it.
const char *areaName(Area area);

// A value of its own, such as "multicast.sender"; an empty text when it is not set. The text lives
// until the site file is read again.
const char *siteValue(const char *key);

// A value that is a time, in seconds: "300", "300s", "5m". fallback when it is not set or no time.
int siteSeconds(const char *key, int fallback);

// Such a value as a length of time in milliseconds ("10s", "250ms", "2m"); otherwise when it is not
// set or none.
int siteLength(const char *key, int otherwise);

// Forgets what was read, so that the next question reads the file again. For a host that changes
// ZULhome.
void forgetSite();

}  // namespace base
