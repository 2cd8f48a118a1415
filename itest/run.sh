#!/usr/bin/env bash
# Integration suite: boots a Debian kernel under QEMU (q35, TCG) with real drivers for the
# board's devices and runs itest/guest_test against libquarn inside the guest.
# Usage: itest/run.sh [--broken-rtc]   (QUARN_BUILD_DIR selects the build dir, default build)
# The last line is "N passed, N failed, N skipped"; exit status 1 when a check failed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${QUARN_BUILD_DIR:-build}
cache=$root/itest/.cache
timeout_s=${QUARN_ITEST_TIMEOUT:-300}
mode=${1:-}
case "$mode" in ""|--broken-rtc) ;; *) echo "usage: itest/run.sh [--broken-rtc]" >&2; exit 2 ;; esac
started=$(date +%s)

skip() { echo "SKIP itest: $*"; echo "0 passed, 0 failed, 1 skipped"; exit 0; }

# Packages, by Debian name, only those missing.
need=(qemu-system-x86 busybox-static swtpm swtpm-tools tpm2-tools cpio kmod)
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then skip "missing packages ${missing[*]} and not root"; fi
  export DEBIAN_FRONTEND=noninteractive
  { apt-get update -q && apt-get install -y -q --no-install-recommends "${missing[@]}"; } >"$cache.apt.log" 2>&1 \
    || skip "could not install ${missing[*]} (see $cache.apt.log)"
fi
command -v qemu-system-x86_64 >/dev/null || skip "qemu-system-x86_64 not available"

# Kernel and modules: the package linux-image-amd64 points at, unpacked (never installed).
mkdir -p "$cache"
kpkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}')
[ -n "$kpkg" ] || { apt-get update -q >/dev/null 2>&1 || true;
  kpkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}'); }
[ -n "$kpkg" ] || kpkg=$(ls "$cache"/kernel 2>/dev/null | head -1)
[ -n "$kpkg" ] || skip "no Debian kernel package found"
kroot=$cache/kernel/$kpkg
if [ ! -f "$kroot/.ready" ]; then
  rm -rf "$kroot" && mkdir -p "$kroot/deb"
  (cd "$kroot/deb" && apt-get download "$kpkg" >/dev/null 2>&1) || skip "could not download $kpkg"
  dpkg-deb -x "$kroot"/deb/*.deb "$kroot/x"
  rm -rf "$kroot/deb"
  kver=$(ls "$kroot/x/lib/modules")
  depmod -b "$kroot/x" "$kver"
  touch "$kroot/.ready"
fi
kver=$(ls "$kroot/x/lib/modules")
vmlinuz=$kroot/x/boot/vmlinuz-$kver

# The library and the guest program.
if [ ! -e "$build/libquarn-2.0.so.0" ]; then scripts/build.sh "$build" >/dev/null; fi
lib=$(readlink -f "$build/libquarn-2.0.so.0")
guest=$cache/guest_test
g++ -std=c++17 -O1 -g0 -Wall -Wextra -I"$root" -o "$guest" itest/*.cpp \
  "$lib" -pthread || { echo "FAIL itest: guest program does not build"; echo "0 passed, 1 failed"; exit 1; }

# Initramfs: busybox, the program, its libraries (from ldd), the modules and the profile.
ird=$cache/initramfs
rm -rf "$ird" && mkdir -p "$ird"/{bin,dev,proc,sys,tmp,etc/quarn,lib/modules,usr/lib}
cp /bin/busybox "$ird/bin/busybox"
cp "$guest" "$ird/bin/guest_test"
cp "$lib" "$ird/usr/lib/libquarn-2.0.so.0"
while read -r so; do
  [ -e "$so" ] || continue
  mkdir -p "$ird$(dirname "$so")" && cp -L "$so" "$ird$so"
done < <(LD_LIBRARY_PATH="$(dirname "$lib")" ldd "$guest" | awk '$2=="=>" && $3 ~ /^\//{print $3} $1 ~ /^\//{print $1}')
# Vendor and device names for the PCI list, where the host has them (package pci.ids).
if [ -f /usr/share/misc/pci.ids ]; then mkdir -p "$ird/usr/share" && cp /usr/share/misc/pci.ids "$ird/usr/share/pci.ids"; fi
cp itest/I2C_profile.ini "$ird/etc/quarn/I2C_profile.ini"
# Modules in dependency order, each once ("insmod" lines of modprobe --show-depends).
# ahci comes before every other SCSI host driver, as on the board: the SATA layer takes the
# SCSI host number of a drive for its port number, which holds only when the AHCI ports
# are the first hosts.
mods=(msr i2c-dev i2c-i801 i2c-stub scsi_mod libahci ahci sd_mod sg scsi_debug virtio_pci virtio_scsi
      sym53c8xx nvme e1000e xhci-pci usb-storage usbhid hid-generic mptsas mptctl)
: >"$ird/etc/modules.list"
for m in "${mods[@]}"; do
  modprobe -d "$kroot/x" -S "$kver" --show-depends "$m" 2>/dev/null | awk '$1=="insmod"{print $2}' |
  while read -r ko; do
    rel=${ko#"$kroot/x"}
    grep -qx "$rel" "$ird/etc/modules.list" && continue
    mkdir -p "$ird$(dirname "$rel")" && cp "$ko" "$ird$rel"
    echo "$rel" >>"$ird/etc/modules.list"
  done
done
cp itest/init.sh "$ird/init" && chmod +x "$ird/init"
[ "$mode" = --broken-rtc ] && echo "QUARN_ITEST_BROKEN_RTC=1" >"$ird/etc/itest.env"
(cd "$ird" && find . | cpio -o -H newc --quiet | gzip -1) >"$cache/initramfs.gz"

# TPM 2.0 emulator for tpm-tis (left out when swtpm cannot start).
tpmargs=()
tpmdir=$(mktemp -d)
swtpm_pid=
if command -v swtpm >/dev/null; then
  # tpm2_getcap reads the fixed properties from the same TPM state first (a swtpm of its
  # own on that directory); the guest compares them with what quarn reads through tpm_tis.
  # They travel as a second archive appended to the initramfs.
  if command -v tpm2_getcap >/dev/null; then
    swtpm socket --tpm2 --tpmstate dir="$tpmdir" --server type=unixio,path="$tpmdir/getcap" \
      --ctrl type=unixio,path="$tpmdir/getcap.ctrl" --flags not-need-init,startup-clear >/dev/null 2>&1 &
    getcap_pid=$!
    for _ in $(seq 50); do [ -S "$tpmdir/getcap.ctrl" ] && break; sleep 0.1; done
    caps=$cache/tpmcaps && rm -rf "$caps" && mkdir -p "$caps/etc/quarn"
    timeout 30 tpm2_getcap -T "swtpm:path=$tpmdir/getcap" properties-fixed \
      >"$caps/etc/quarn/tpm2_getcap_fixed.yaml" 2>"$cache/tpm2_getcap.log" || true
    kill "$getcap_pid" 2>/dev/null || true
    wait "$getcap_pid" 2>/dev/null || true
    rm -f "$tpmdir/getcap" "$tpmdir/getcap.ctrl"
    (cd "$caps" && find . | cpio -o -H newc --quiet | gzip -1) >>"$cache/initramfs.gz"
  fi
  swtpm socket --tpm2 --tpmstate dir="$tpmdir" --ctrl type=unixio,path="$tpmdir/sock" \
    --flags not-need-init,startup-clear >/dev/null 2>&1 &
  swtpm_pid=$!
  for _ in $(seq 50); do [ -S "$tpmdir/sock" ] && break; sleep 0.1; done
  [ -S "$tpmdir/sock" ] && tpmargs=(-chardev "socket,id=chrtpm,path=$tpmdir/sock"
    -tpmdev emulator,id=tpm0,chardev=chrtpm -device tpm-tis,tpmdev=tpm0)
fi
cleanup() {
  if [ -n "$swtpm_pid" ]; then kill "$swtpm_pid" 2>/dev/null || true; fi  # it may have left with QEMU
  rm -rf "$tpmdir"
}
trap cleanup EXIT

# Disks.
for d in nvme sata scsi0 scsi1 usb sas0; do
  [ -f "$cache/$d.img" ] || truncate -s 64M "$cache/$d.img"
done

accel=tcg
if [ -r /dev/kvm ] && [ "${QUARN_ITEST_KVM:-0}" = 1 ]; then accel=kvm; fi
log=$cache/console.log
set +e
timeout --foreground -k 10 "$timeout_s" qemu-system-x86_64 \
  -machine q35,accel=$accel -cpu max -smp 2 -m 3G -display none -no-reboot -nodefaults \
  -kernel "$vmlinuz" -initrd "$cache/initramfs.gz" \
  -append "console=ttyS0,115200 mem=768M iomem=relaxed panic=-1 loglevel=4 tsc=reliable no_timer_check" \
  -serial "file:$log" -serial null -serial null -serial null \
  -drive "if=none,id=sata0,file=$cache/sata.img,format=raw" -device ide-hd,drive=sata0,bus=ide.0 \
  -device pcie-root-port,id=rp1,bus=pcie.0,chassis=1,slot=1 \
  -device x3130-upstream,id=up1,bus=rp1 \
  -device xio3130-downstream,id=dn1,bus=up1,chassis=2,slot=0 \
  -device xio3130-downstream,id=dn2,bus=up1,chassis=3,slot=1 \
  -drive "if=none,id=nvm0,file=$cache/nvme.img,format=raw" -device nvme,drive=nvm0,serial=QUARN0001,bus=dn1 \
  -device e1000e,bus=dn2,netdev=h0 -netdev hubport,id=h0,hubid=0 -device e1000e,bus=pcie.0,netdev=h1 -netdev hubport,id=h1,hubid=0 \
  -device pcie-root-port,id=rp2,bus=pcie.0,chassis=4,slot=2,x-speed=8,x-width=4 \
  -device virtio-scsi-pci,id=vscsi \
  -drive "if=none,id=sd0,file=$cache/scsi0.img,format=raw" -device scsi-hd,drive=sd0,bus=vscsi.0 \
  -device lsi53c895a,id=lsi \
  -drive "if=none,id=sd1,file=$cache/scsi1.img,format=raw" -device scsi-hd,drive=sd1,bus=lsi.0 \
  -device mptsas1068,id=mpt \
  -drive "if=none,id=sas0,file=$cache/sas0.img,format=raw" -device scsi-hd,drive=sas0,bus=mpt.0 \
  -device qemu-xhci,id=xhci \
  -drive "if=none,id=us0,file=$cache/usb.img,format=raw" -device usb-storage,drive=us0,bus=xhci.0 \
  -device usb-kbd,bus=xhci.0 -device usb-mouse,bus=xhci.0 \
  "${tpmargs[@]}" >"$cache/qemu.log" 2>&1
qrc=$?
set -e
if [ $qrc -ne 0 ] && ! grep -q '^ITEST-BEGIN' "$log" 2>/dev/null; then
  if grep -qiE 'could not|failed to|not supported' "$cache/qemu.log"; then
    skip "QEMU cannot run here: $(head -1 "$cache/qemu.log")"
  fi
fi

tr -d '\r' <"$log" | sed -n '/^ITEST-BEGIN/,/^ITEST-END/p' | grep -E '^(PASS|FAIL|SKIP|INFO|== )' || true
pass=$(tr -d '\r' <"$log" | sed -n '/^ITEST-BEGIN/,/^ITEST-END/p' | grep -c '^PASS ' || true)
fail=$(tr -d '\r' <"$log" | sed -n '/^ITEST-BEGIN/,/^ITEST-END/p' | grep -c '^FAIL ' || true)
skipped=$(tr -d '\r' <"$log" | sed -n '/^ITEST-BEGIN/,/^ITEST-END/p' | grep -c '^SKIP ' || true)
if ! tr -d '\r' <"$log" | grep -q '^ITEST-END'; then
  echo "FAIL itest: the guest did not finish (qemu exit $qrc; console in $log)"
  tail -20 "$log" | tr -d '\r' | sed 's/^/  | /'
  fail=$((fail + 1))
elif ! tr -d '\r' <"$log" | grep -q '^ITEST-END rc=0' && [ "$fail" -eq 0 ]; then
  echo "FAIL itest: the guest program ended with $(tr -d '\r' <"$log" | grep '^ITEST-END') and no failed check"
  tr -d '\r' <"$log" | sed -n '/^ITEST-BEGIN/,/^ITEST-END/p' | tail -5 | sed 's/^/  | /'
  fail=1
fi
echo "itest: wall time $(( $(date +%s) - started )) s ($accel)"
echo "$pass passed, $fail failed, $skipped skipped"
if [ "$fail" -eq 0 ]; then exit 0; else exit 1; fi
