#!/usr/bin/env bash
# The library reaches the operating system only through its platform interface: no
# file, device, port, process, socket, semaphore, affinity or clock call outside
# api/platform/. Fails listing every offending line.
set -u
src=${1:-$(dirname "$0")/../..}
cd "$src" || exit 2
pattern='(^|[^.>:_[:alnum:]])(::)?(open|openat|fopen|popen|system|ioctl|mmap|munmap|opendir|readdir|readlink|stat|lstat|iopl|ioperm|inb|inw|inl|outb|outw|outl|socket|semget|semop|semctl|sched_setaffinity|pthread_setaffinity_np|usleep|sleep|nanosleep|clock_gettime|gettimeofday|time|uname|fork|execv|execvp|posix_spawnp?|pread|pwrite|unlink|rename|mkdir|rmdir)[[:space:]]*\('
hits=$(grep -nE "$pattern" --include='*.cpp' --include='*.h' -r api ddapi dapi \
  | grep -v '^api/platform/' \
  | grep -vE '^[^:]+:[0-9]+:\s*(//|\*)' \
  | grep -vE 'platform\(\)\.|\bp\.|linuxPlatform\(\)\.|quarn::platform|Platform& ' || true)
# Method calls on objects (x.open(, x->read() are not system calls; keep only bare calls.
hits=$(printf '%s\n' "$hits" | grep -vE '(\.|->)(open|ioctl|mmap|munmap|stat|lstat|readlink|unlink|rename|mkdir|rmdir|pread|pwrite|time)\(' | sed '/^$/d')
if [ -n "$hits" ]; then
  echo "system calls outside the platform interface:"
  printf '%s\n' "$hits"
  exit 1
fi
echo "os boundary: clean"
