// Records a metric, a structured and an offline log in C, through libpelmor.
//
//   cc report.c $(pkg-config --cflags --libs pelmor) -o report
//
// The records are sent without waiting for replies: pelmor_flush waits once for all of them. An
// event loop watches pelmor_poll_fd and calls pelmor_process, and after -EAGAIN records again then.
#include <errno.h>
#include <pelmor/pelmor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char kType[] = "type.example/ap.Example";
static const char kStructured[] = "structured from libpelmor";
static const char kOffline[] = "offline from libpelmor";

// Returns a negative error number on failure.
static int record(pelmor_client* client) {
  const pelmor_label labels[] = {{"band", "5g"}, {"language", "libpelmor"}};
  int result = pelmor_record_double(client, "example/utilization", labels, 2, 0.25);
  if (result == 0)
    result = pelmor_record_structured_data(client, kType, kStructured, strlen(kStructured));
  if (result == 0) result = pelmor_record_offline_data(client, kType, kOffline, strlen(kOffline));
  if (result == 0) result = pelmor_flush(client, PELMOR_DEFAULT_TIMEOUT_MS);
  return result;
}

int main(void) {
  pelmor_client* client = NULL;
  int result = pelmor_open(PELMOR_DEFAULT_TIMEOUT_MS, &client);
  if (result < 0) {
    fprintf(stderr, "report: %s\n", strerror(-result));
    return EXIT_FAILURE;
  }
  result = record(client);
  if (result == -ESRCH)
    fprintf(stderr, "report: the telemetry daemon is not running: %s\n", pelmor_message(client));
  else if (result < 0)
    fprintf(stderr, "report: %s\n", pelmor_message(client));
  else
    puts("Recorded");
  pelmor_close(client);
  return result < 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
