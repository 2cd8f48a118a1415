#!/bin/busybox sh
# First process of the integration guest: mounts the kernel file systems, loads the
# drivers, sets up the fake SMBus chips and the error-raising SCSI disk, runs the test
# program and powers the machine off.
/bin/busybox --install -s /bin
export PATH=/bin LD_LIBRARY_PATH=/usr/lib
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp
# Parameters of the modules that need them; the rest load with their defaults.
params() {
  case "$1" in
    # Two stub chips: 0x50 is filled with an SPD image by the test, 0x70 stands for a switch.
    i2c-stub.ko) echo "chip_addr=0x50,0x70" ;;
    # 16 MiB disk; medium errors at LBA 0x1234.. once opts asks for them.
    scsi_debug.ko) echo "dev_size_mb=16 medium_error_start=0x1234 medium_error_count=4" ;;
  esac
}
while read -r ko; do
  insmod "$ko" $(params "$(basename "$ko")") 2>/dev/null || echo "INFO insmod $(basename "$ko") failed"
done </etc/modules.list
mdev -s 2>/dev/null
# Let USB and SCSI finish probing.
for _ in 1 2 3 4 5 6 7 8 9 10; do
  [ -e /dev/sda ] && ls /sys/class/scsi_generic 2>/dev/null | grep -q sg4 && break
  sleep 1
done
[ -f /etc/itest.env ] && . /etc/itest.env && export QUARN_ITEST_BROKEN_RTC
echo "ITEST-BEGIN"
/bin/guest_test
echo "ITEST-END rc=$?"
sync
poweroff -f
