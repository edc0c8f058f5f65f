// Preloaded into the daemon: a disk that stands still, for plain files, while there is a file of
// this name.

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" ssize_t write(int file, const void* data, size_t size) {
  struct stat status {};
  while (fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
         access("/tmp/standstill", F_OK) == 0) {
    usleep(1000);
  }
  return syscall(SYS_write, file, data, size);
}
