// Test-controlled stand-ins for two functions the engine calls, defined in
// this test program. The engine is linked in statically, so these
// definitions replace the system's for the whole program:
//  - gettimeofday: the real clock, plus an offset that can grow by a fixed
//    step at every reading (so a request can be made to run "for" any time),
//    and a one-shot hook run at the first reading after it is set;
//  - cvCreateImage: OpenCV's, except that the n-th call after arming throws
//    the cv::Exception OpenCV throws when an allocation fails.
// Everything is off until a test turns it on; Reset() turns it all off.
#pragma once

namespace interpose {

// Every gettimeofday reading from now on advances the clock by this many
// extra seconds (0: the real clock again, offset kept).
void setClockStep(long seconds);
// Runs hook (once, on the reading thread) at the next gettimeofday reading.
void setClockHook(void (*hook)());
// The n-th cvCreateImage call from now on (1 = the next one) throws; 0 disarms.
void failCreateImageAt(int n);
// cvCreateImage calls since the last failCreateImageAt or Reset.
int createImageCalls();
// Everything off, offset back to zero.
void reset();

}  // namespace interpose
