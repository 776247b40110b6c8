// A reporter in C for the tests, through libpelmor: reads commands, one a line, and prints as JSON
// what became of the records of each.
//
//   reporter-c QUEUE_WAIT_MS FLUSH_MS
//
// "types" records a point of each type. A number records so many numbered points, as fast as the
// client accepts them; while it is busy, an event loop waits for it. When it is busy first, the
// reporter prints to standard error how many were accepted.
#include <errno.h>
#include <inttypes.h>
#include <pelmor/pelmor.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const pelmor_label kLabels[] = {{"band", "5g"}, {"radio", "radio-0"}};

static int record_types(pelmor_client* client) {
  int result = pelmor_record_bool(client, "c/bool", kLabels, 2, true);
  if (result == 0) result = pelmor_record_int64(client, "c/int64", NULL, 0, INT64_MIN);
  if (result == 0) result = pelmor_record_double(client, "c/double", kLabels, 1, -0.5);
  if (result == 0) result = pelmor_record_string(client, "c/string", NULL, 0, "größer");
  return result;
}

// An iteration of an event loop.
static int wait_for(pelmor_client* client) {
  struct pollfd polled = {pelmor_poll_fd(client), POLLIN, 0};
  if (poll(&polled, 1, -1) < 0) return -errno;
  return pelmor_process(client);
}

static int record_numbers(pelmor_client* client, int64_t count) {
  bool was_busy = false;
  int64_t number = 0;
  while (number < count) {
    int result = pelmor_record_int64(client, "c/number", kLabels, 2, number);
    if (result == -EAGAIN) {
      if (!was_busy) fprintf(stderr, "busy after %" PRId64 "\n", number);
      was_busy = true;
      result = wait_for(client);
    } else {
      ++number;
    }
    if (result < 0) return result;
  }
  return 0;
}

int main(int argc, char** argv) {
  pelmor_client* client = NULL;
  if (argc != 3 || pelmor_open((uint32_t)atol(argv[1]), &client) < 0) return EXIT_FAILURE;
  char command[32];
  while (fgets(command, sizeof command, stdin)) {
    int result = strcmp(command, "types\n") == 0
                     ? record_types(client)
                     : record_numbers(client, strtoll(command, NULL, 10));
    if (result == 0) result = pelmor_flush(client, (uint32_t)atol(argv[2]));
    printf("{\"result\": %d, \"message\": \"%s\", \"lost\": %" PRIu64 "}\n", result,
           result == 0 ? "" : pelmor_message(client), pelmor_lost_records(client));
    fflush(stdout);
  }
  pelmor_close(client);
  return EXIT_SUCCESS;
}
