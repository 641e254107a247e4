// SPDX-License-Identifier: MIT

// A test double of the tracing client (TracerClient), for the tests of the
// event tracker.
//
// tests/tracer_double.cpp defines TracerClient's operations itself and
// records every call in the state that TracerDoubleState() returns. How the
// tracker's calls reach it depends on the platform:
//   - ELF (Linux): the source is compiled into the test program; the
//     dynamic linker binds libzel_utils's calls to the program's definitions
//     ahead of libzel_tracer's.
//   - Windows: the source is built as a DLL of its own named zel_tracer.dll
//     and placed, with a copy of zel_utils.dll, in a directory of its own
//     beside the test program; the loader looks in the program's directory
//     first, so zel_utils.dll binds to the double.
//
// Use from a test (the state is fresh in every process, and every test runs
// in a process of its own):
//   TracerDouble& d = TracerDoubleState();
//   d.registerFails = true;     // the next registerClient() calls give null
//   d.postResult = false;       // the next postTrace() calls return false
//   d.registeredNames           // names passed to registerClient(), in order
//   d.clients                   // every client handed out, in order
//   d.posts[i].text             // the documents posted, in order, and
//   d.posts[i].client           //   the index in `clients` of their client
//   d.deregistered              // indices in `clients` of deregister() calls
// Read the vectors after the tracker call under test has returned (the
// double locks `mutex` while it records, a test that reads concurrently must
// lock it too).
#ifndef ZEL_TESTS_TRACER_DOUBLE_H_
#define ZEL_TESTS_TRACER_DOUBLE_H_

#include <mutex>
#include <string>
#include <vector>

#include "tracer/tracer_client.h"

#if defined(ZEL_TEST_ON_WINDOWS) && defined(ZEL_TRACER_DOUBLE_BUILDING)
#define ZEL_TRACER_DOUBLE_API __declspec(dllexport)
#elif defined(ZEL_TEST_ON_WINDOWS)
#define ZEL_TRACER_DOUBLE_API __declspec(dllimport)
#else
#define ZEL_TRACER_DOUBLE_API
#endif

struct TracerDouble {
  std::mutex mutex;
  // What the next calls do.
  bool registerFails = false;
  bool postResult = true;
  // What happened, in call order.
  std::vector<std::string> registeredNames;
  std::vector<TracerClient*> clients;  // every client handed out
  struct Post {
    int client;  // index into `clients`
    std::string text;
  };
  std::vector<Post> posts;
  std::vector<int> deregistered;  // indices into `clients`
  // deregister() calls on a client that the double did not make (it then
  // leaves the client alone).
  int foreignDeregisters = 0;

  // Index of the live client `client`: the latest registration with that
  // address, since a freed client's address may be handed out again; -1 for
  // an address never handed out.
  int indexOf(const TracerClient* client) {
    for (std::size_t i = clients.size(); i > 0; --i) {
      if (clients[i - 1] == client) return static_cast<int>(i - 1);
    }
    return -1;
  }
};

// The double's state; made on first use and never destroyed.
ZEL_TRACER_DOUBLE_API TracerDouble& TracerDoubleState();

#endif  // ZEL_TESTS_TRACER_DOUBLE_H_
