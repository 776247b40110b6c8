// Sends records to the telemetry daemon of this access point, over the system bus, from C.
//
//   pelmor_client* client = NULL;
//   const pelmor_label labels[] = {{"band", "5g"}};
//   int result = pelmor_open(PELMOR_DEFAULT_TIMEOUT_MS, &client);
//   if (result == 0) result = pelmor_record_double(client, "ap/clients", labels, 1, 12);
//   if (result == 0) result = pelmor_flush(client, PELMOR_DEFAULT_TIMEOUT_MS);
//   if (result < 0) fprintf(stderr, "%s: %s\n", strerror(-result), pelmor_message(client));
//   pelmor_close(client);
//
// Records are sent one-way, in the order of the calls. Success of a call that records means that
// the record was accepted: it was sent or queued. The daemon confirms records in windows of 64;
// `pelmor_flush` waits until it has received all of them. Neither means that the cloud will: the
// daemon drops records without notice while the device is not provisioned or its clock is not set,
// and the oldest ones when its store is full.
//
// Flow control: at most two windows are unconfirmed. Further records are queued in this process (up
// to 1024 or 4 MiB), and sent by later calls, mainly by `pelmor_process` when confirmations have
// arrived. If the queue is full, a record waits for the client's `queue_wait_ms`, and then fails
// with -EAGAIN. A program with its own event loop polls the descriptor of `pelmor_poll_fd`. Others
// need not call `pelmor_process`, but `pelmor_flush` after the last record of a burst: otherwise,
// the queue remains until their next call.
//
// Loss: records that were accepted and not confirmed are counted by `pelmor_lost_records`. If the
// daemon leaves the bus, these are up to two windows, and later ones until it is back; if the bus
// drops the connection, up to two windows and the queue. The next call that needs the connection
// reconnects. Records are not sent again, since the daemon may have received them. A bus drops the
// connection, too, for a record above its own limit for messages, which is usually 32 MiB.
//
// Results are 0, or a negative number of <errno.h> with a text in `pelmor_message`:
//   -EINVAL     not sent: an argument is null, a text is not UTF-8 or contains a Unicode
//               noncharacter, a label is given twice, or the record exceeds 60 MiB
//   -EAGAIN     not accepted: the queue is full
//   -ENOTCONN   the system bus can't be reached, or the connection was lost
// Only `pelmor_flush`, as records are one-way:
//   -ESRCH      the daemon is not on the bus, or left it before it replied
//   -EACCES     the bus policy does not allow this process to call the daemon: it admits root and
//               the members of the group pelmor
//   -ETIMEDOUT  no reply in time
//   -EIO        any other error reply
// Only `pelmor_open`, without a text: -EMFILE, -ENFILE and -ENOMEM, if it gets no descriptor.
// A null client is -EINVAL. Without memory the process aborts; no C++ exception leaves the library.
//
// Memory: arguments are copied before a call returns. The caller frees nothing but the client.
//
// Threads: a client is not locked. Use one client per thread, or hold a lock around each call.
//
// fork(): a client does not work in the child process. Calls there that need the connection fail
// with -ENOTCONN; `pelmor_close` leaves the parent's connection alone. The descriptors close in
// exec().
//
// ABI: a program runs with each later libpelmor.so.0. Functions may be added; what is here stays.
//
// Link with `pkg-config --cflags --libs pelmor`, or in CMake with pelmor::pelmor from
// `find_package(pelmor-client CONFIG)`. C++ has pelmor/client.h, with replies to single records.
#pragma once

// NOLINTBEGIN(modernize-*,readability-identifier-naming): it is C.
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmor_client pelmor_client;

// Distinguishes the points of one metric. Both are UTF-8 texts and not null.
typedef struct pelmor_label {
  const char* name;
  const char* value;
} pelmor_label;

#define PELMOR_DEFAULT_TIMEOUT_MS 5000

// The version of the library that runs, such as "0.1.0".
const char* pelmor_version(void);

// Stores a new client, or null on failure, in `client`. Does not connect yet. A record waits at
// most `queue_wait_ms` milliseconds for room in a full queue; 0 does not wait.
int pelmor_open(uint32_t queue_wait_ms, pelmor_client** client);
// Sends the queued records, waits until the bus has read them, and frees the client. Does not wait
// for the daemon: `pelmor_flush` does. Null is allowed.
void pelmor_close(pelmor_client* client);
// Why the last failed call on this client failed; empty before. In English, except that a text of
// the system, as of strerror(), is in the process's language. Valid until the next call on the
// client.
const char* pelmor_message(const pelmor_client* client);

// Connects to the system bus unless connected, and waits until the bus has authenticated this
// process. Optional: every call that needs the connection does this. The daemon need not run.
int pelmor_connect(pelmor_client* client);

// Record a point of the metric `name`, with the current time. `labels` is an array of `label_count`
// labels, and may be null if there are none.
int pelmor_record_bool(pelmor_client* client, const char* name, const pelmor_label* labels,
                       size_t label_count, bool value);
int pelmor_record_int64(pelmor_client* client, const char* name, const pelmor_label* labels,
                        size_t label_count, int64_t value);
// The service gets NaN and the infinities as null, and can reject the request that contains it.
int pelmor_record_double(pelmor_client* client, const char* name, const pelmor_label* labels,
                         size_t label_count, double value);
int pelmor_record_string(pelmor_client* client, const char* name, const pelmor_label* labels,
                         size_t label_count, const char* value);

// Records an entry of the structured log: `size` bytes, encoded as the type that `type_url` names.
int pelmor_record_structured_data(pelmor_client* client, const char* type_url, const void* data,
                                  size_t size);
// Records opaque data, which are uploaded unchanged. `type_url` names their type.
int pelmor_record_offline_data(pelmor_client* client, const char* type_url, const void* data,
                               size_t size);

// Waits until every accepted record was received by the daemon or lost, at most `timeout_ms`
// milliseconds; 0 counts as 1. -ETIMEDOUT: the records remain on their way. Any other failure is
// that of the last record that was lost since the previous `pelmor_flush` or, if none was lost,
// means that the daemon can't be asked; some may then remain on their way.
int pelmor_flush(pelmor_client* client, uint32_t timeout_ms);
// The number of records that were accepted and not confirmed, since the client exists. Does not
// count those whose confirmation is still expected. 0 for null.
uint64_t pelmor_lost_records(const pelmor_client* client);

// A descriptor for the caller's event loop: poll it for POLLIN, level-triggered, and then call
// `pelmor_process`. It also becomes readable for timeouts, so the loop needs no timer. It is the
// same for the life of the client, also across reconnections; do not read or close it.
int pelmor_poll_fd(const pelmor_client* client);
// Reads what has arrived and sends queued records. Does not block or reconnect: losses are reported
// by `pelmor_flush` and `pelmor_lost_records`.
int pelmor_process(pelmor_client* client);

#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-*,readability-identifier-naming)
