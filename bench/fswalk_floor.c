/* fswalk-floor: the least work that watching a whole tree with inotify takes.
 *
 * It walks the tree below ROOT and adds one inotify watch per folder, with
 * the event mask the agent's stream uses, and does nothing else: no path
 * table, no event reading. Whatever a real watcher spends beyond this is its
 * own cost; this much is the kernel's and the file system's.
 *
 * Usage: fswalk-floor [--hold] ROOT
 *   Prints "Watches established." and the count and time to standard error.
 *   With --hold it then waits for SIGTERM or SIGINT (so that its memory can
 *   be read like that of a watcher); otherwise it exits.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* The same mask as the agent's folder watches, so the kernel does the same work. */
#define FOLDER_MASK                                                                                         \
  (IN_CLOSE_WRITE | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |           \
   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK)

struct stack {
  char **paths;
  size_t count;
  size_t capacity;
};

static int push(struct stack *stack, char *path) {
  if (stack->count == stack->capacity) {
    size_t capacity = stack->capacity ? stack->capacity * 2 : 256;
    char **grown = realloc(stack->paths, capacity * sizeof *grown);
    if (!grown) return -1;
    stack->paths = grown;
    stack->capacity = capacity;
  }
  stack->paths[stack->count++] = path;
  return 0;
}

static char *join(const char *folder, const char *name) {
  size_t a = strlen(folder), b = strlen(name);
  char *path = malloc(a + b + 2);
  if (!path) return NULL;
  memcpy(path, folder, a);
  path[a] = '/';
  memcpy(path + a + 1, name, b + 1);
  return path;
}

static double seconds_since(const struct timespec *start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) + (double)(now.tv_nsec - start->tv_nsec) / 1e9;
}

static volatile sig_atomic_t stop_requested = 0;
static void on_signal(int signo) {
  (void)signo;
  stop_requested = 1;
}

int main(int argc, char **argv) {
  int hold = 0;
  const char *root = NULL;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--hold") == 0)
      hold = 1;
    else
      root = argv[i];
  }
  if (!root) {
    fprintf(stderr, "usage: fswalk-floor [--hold] ROOT\n");
    return 2;
  }

  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    perror("inotify_init1");
    return 1;
  }

  struct stack stack = {0};
  char *top = strdup(root);
  if (!top || push(&stack, top) != 0) return 1;
  unsigned long watches = 0, failures = 0;
  while (stack.count > 0) {
    char *folder = stack.paths[--stack.count];
    /* Watch first, list second, as any watcher that must not miss a file does. */
    if (inotify_add_watch(fd, folder, FOLDER_MASK | IN_DONT_FOLLOW) < 0) {
      ++failures;
      if (errno == ENOSPC) {
        fprintf(stderr, "fswalk-floor: inotify watch limit reached at %s\n", folder);
        free(folder);
        break;
      }
      free(folder);
      continue;
    }
    ++watches;
    DIR *dir = opendir(folder);
    if (dir) {
      struct dirent *entry;
      while ((entry = readdir(dir)) != NULL) {
        if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        char *child = join(folder, entry->d_name);
        if (!child) return 1;
        struct stat st;
        if (entry->d_type == DT_UNKNOWN && (lstat(child, &st) != 0 || !S_ISDIR(st.st_mode))) {
          free(child);
          continue;
        }
        if (push(&stack, child) != 0) return 1;
      }
      closedir(dir);
    }
    free(folder);
  }
  while (stack.count > 0) free(stack.paths[--stack.count]);
  free(stack.paths);

  double elapsed = seconds_since(&start);
  fprintf(stderr, "Watches established.\nfswalk-floor: %lu watches (%lu failed) in %.1f ms\n", watches, failures,
          elapsed * 1000.0);

  if (hold) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
    while (!stop_requested) pause();
  }
  close(fd);
  return 0;
}
