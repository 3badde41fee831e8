// The backup history as the rest of the module sees it; the functions that change and list it are
// public.
#pragma once
#include <time.h>

// When the newest completed run of a job with a lower level began, which is what a run of this
// level need not save again; 0 when there is none, and everything is to be saved.
time_t lastLowerStart(int job, int level);
