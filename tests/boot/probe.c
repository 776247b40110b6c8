/* Attempts of an intruder in the daemon's process: `probe NAME FOLDER` makes one of them, with files in a
 * folder that it may write to, and prints "possible", or the error that prevented it. */

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/io_uring.h>
#include <mqueue.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

/* Each returns -1 and sets errno when it is not possible. */

static const char *folder;

static int io_uring(void) {
  struct io_uring_params parameters = {0};
  return (int)syscall(SYS_io_uring_setup, 1, &parameters);
}

static int aio(void) {
  unsigned long context = 0;
  return (int)syscall(SYS_io_setup, 1, &context);
}

static int keyring(void) {
  /* KEYCTL_GET_KEYRING_ID of the session's keyring, created if it does not exist. */
  return (int)syscall(SYS_keyctl, 0, -3, 1);
}

static int unbound_listener(void) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  return listener == -1 ? -1 : listen(listener, 1);
}

/* The kernel answers EINVAL for a socket that does not listen: the call itself is possible. */
static int take_connection(int call) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  int taken = (int)syscall(call, listener, NULL, NULL, 0);
  return taken == -1 && errno == EINVAL ? 0 : taken;
}

static int accept_connection(void) { return take_connection(SYS_accept); }

static int accept4_connection(void) { return take_connection(SYS_accept4); }

static int shared_memory(void) {
  int id = shmget(IPC_PRIVATE, 4096, 0600);
  return id == -1 ? -1 : shmctl(id, IPC_RMID, NULL);
}

static int message_queue(void) {
  int id = msgget(IPC_PRIVATE, 0600);
  return id == -1 ? -1 : msgctl(id, IPC_RMID, NULL);
}

static int semaphore(void) {
  int id = semget(IPC_PRIVATE, 1, 0600);
  return id == -1 ? -1 : semctl(id, 0, IPC_RMID);
}

static int posix_queue(void) {
  int queue = mq_open("/probe", O_RDWR | O_CREAT, 0600, NULL);
  return queue == -1 ? -1 : mq_unlink("/probe");
}

/* A queue that another process made with this key, and that everyone may use. */
static int foreign_queue(void) { return msgget(FOREIGN_KEY, 0); }

static int read_process(void) {
  char from = 'a', to;
  struct iovec local = {&to, 1}, remote = {&from, 1};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == 1 ? 0 : -1;
}

static int write_process(void) {
  char from = 'a', to;
  struct iovec local = {&from, 1}, remote = {&to, 1};
  return process_vm_writev(getpid(), &local, 1, &remote, 1, 0) == 1 ? 0 : -1;
}

/* In a child, so that this process can report the result. */
static int execute(const char *path, char *const arguments[]) {
  int failure[2];
  char error;
  if (pipe2(failure, O_CLOEXEC) == -1)
    return -1;
  pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    execv(path, arguments);
    error = (char)errno;
    _exit(write(failure[1], &error, 1) == 1 ? 1 : 2);
  }
  close(failure[1]);
  ssize_t failed = read(failure[0], &error, 1);
  int status;
  waitpid(child, &status, 0);
  if (failed == 1)
    errno = error;
  else if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    return 0;
  else
    errno = ECHILD;
  return -1;
}

static int shell(void) {
  return execute("/bin/sh", (char *[]){"sh", "-c", "true", NULL});
}

/* The loader maps the shell in place of the kernel. */
static int shell_by_the_loader(void) {
  return execute(LOADER, (char *[]){"ld.so", "/bin/sh", "-c", "true", NULL});
}

static int copy_of_itself(int to) {
  static char block[65536];
  int from = open("/proc/self/exe", O_RDONLY);
  ssize_t size;
  while ((size = read(from, block, sizeof block)) > 0)
    if (write(to, block, (size_t)size) != size)
      return -1;
  close(from);
  return size == -1 ? -1 : 0;
}

static int written_file(void) {
  char path[256];
  snprintf(path, sizeof path, "%s/written", folder);
  int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0700);
  if (file == -1 || copy_of_itself(file) == -1)
    abort();
  close(file);
  int result = execute(path, (char *[]){path, "nothing", (char *)folder, NULL});
  int error = errno;
  unlink(path);
  errno = error;
  return result;
}

static int mapped_file(void) {
  char path[256];
  snprintf(path, sizeof path, "%s/mapped", folder);
  int file = open(path, O_RDWR | O_CREAT | O_TRUNC, 0700);
  if (file == -1 || copy_of_itself(file) == -1)
    abort();
  unlink(path);
  return mmap(NULL, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, file, 0) == MAP_FAILED ? -1 : 0;
}

static int memory_file(void) {
  char path[64];
  int file = memfd_create("probe", MFD_CLOEXEC);
  if (file == -1 || copy_of_itself(file) == -1)
    return -1;
  snprintf(path, sizeof path, "/proc/self/fd/%d", file);
  int readable = open(path, O_RDONLY);
  close(file);
  snprintf(path, sizeof path, "/proc/self/fd/%d", readable);
  return execute(path, (char *[]){"probe", "nothing", (char *)folder, NULL});
}

/* Like the daemon, ignores the signal, so that the write fails with EFBIG. */
static int large_file(void) {
  char path[256];
  snprintf(path, sizeof path, "%s/large", folder);
  signal(SIGXFSZ, SIG_IGN);
  int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file == -1)
    abort();
  ssize_t written = pwrite(file, "", 1, LARGEST_FILE);
  int error = errno;
  unlink(path);
  errno = error;
  return written == 1 ? 0 : -1;
}

static int execute_descriptor(void) {
  int program = open("/proc/self/exe", O_PATH | O_CLOEXEC);
  pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    syscall(SYS_execveat, program, "", (char *[]){"probe", "nothing", "/", NULL}, NULL,
            AT_EMPTY_PATH);
    _exit(errno);
  }
  int status;
  waitpid(child, &status, 0);
  errno = WEXITSTATUS(status);
  return errno == 0 ? 0 : -1;
}

/* The daemon itself does this: a sandbox that forbids it is no sandbox for the daemon. */
static int nothing(void) { return socket(AF_INET, SOCK_STREAM, 0); }

static const struct {
  const char *name;
  int (*possible)(void);
} probes[] = {
  {"io_uring", io_uring},
  {"aio", aio},
  {"keyring", keyring},
  {"listen", unbound_listener},
  {"accept", accept_connection},
  {"accept4", accept4_connection},
  {"shared memory", shared_memory},
  {"message queue", message_queue},
  {"semaphore", semaphore},
  {"posix queue", posix_queue},
  {"foreign queue", foreign_queue},
  {"process_vm_readv", read_process},
  {"process_vm_writev", write_process},
  {"shell", shell},
  {"shell by the loader", shell_by_the_loader},
  {"written file", written_file},
  {"mapped file", mapped_file},
  {"memory file", memory_file},
  {"large file", large_file},
  {"execveat", execute_descriptor},
  {"nothing", nothing},
};

int main(int count, char **arguments) {
  if (count != 3)
    return 2;
  folder = arguments[2];
  for (size_t i = 0; i < sizeof probes / sizeof *probes; ++i)
    if (strcmp(probes[i].name, arguments[1]) == 0) {
      puts(probes[i].possible() == -1 ? strerrorname_np(errno) : "possible");
      return 0;
    }
  return 2;
}
