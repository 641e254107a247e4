// SPDX-License-Identifier: MIT

// Part of the demonstration program: event reporting.
#ifndef ZEL_EXAMPLES_DEMO_TRACKER_H_
#define ZEL_EXAMPLES_DEMO_TRACKER_H_

#include <string>

// Reports one device event and one error event through
// zel::ZelClientTracker. Unless ZEL_TRACE_ENDPOINT is already set, the
// documents go to the file target "file://<workDir>trace.jsonl" (`workDir`
// is an existing directory whose path ends in '/'), and the documents are
// printed from that file on standard output. With another file target the
// documents are printed from that file; with an HTTP target only what was
// sent is told.
void DemoTracker(const std::string& workDir);

// Runs an HTTP receiver on 127.0.0.1, points ZEL_TRACE_ENDPOINT at it,
// posts three events through zel::ZelClientTracker and prints how many
// documents the receiver got once Uninit() has delivered them.
void DemoHttpDelivery();

#endif  // ZEL_EXAMPLES_DEMO_TRACKER_H_
