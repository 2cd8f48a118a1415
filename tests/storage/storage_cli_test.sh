#!/usr/bin/env bash
# quarn nvme, usb and storage end to end on the virtual board: output, JSON, exit status,
# and the refusal to write a disk that holds a mounted file system.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"
v() { "$q" --board virtual "$@"; }

contains nvme-list 0 'NVME0  0000:04:00.0  /dev/nvme0  /dev/nvme0n1  INTEL SSDPEDMD400G4' v nvme list
contains nvme-identify-json 0 '"serial":"CVFT6123004Y400BGN","model":"INTEL SSDPEDMD400G4","firmware":"8DV10171"' \
  v -o json nvme identify NVME0
contains nvme-fw-log 0 'Slot 1: 8DV10171' v nvme fw-log 0
check nvme-zeroes 0 'zeroed 8 blocks from LBA 4096' v nvme write-zeroes 0 4096 8
check nvme-zeroes-count 2 'quarn: COUNT is 1-65536 blocks' v nvme write-zeroes 0 0 0
check nvme-bad-controller 1 'NVMeDAPI::getInformation: "Bad parameter - Bad NVME logical ID"' v nvme reset 3
check nvme-bad-format 1 'NVMeDAPI::ioctl command fail -> NVMeDDAPI::NVME execute IOCTL fail: "NVME ioctl invalid format - /dev/nvme0n1 op 12"' \
  v nvme format 0 5
check usb-list 0 "$(printf '0   KEYBOARD0  1-2:1.0  None      Dell         1.5 Mb/s\n1   MOUSE0     1-3:1.0  None      Logitech     1.5 Mb/s\n2   USB0       1-1:1.0  /dev/sdf  SanDisk      480 Mb/s')" \
  v usb list
contains usb-info 0 'size_mib       : 15264.00' v usb info usb0
contains usb-read-perf-json 0 '"passed":true,"commands":16,"result":["Spend time: ' v -o json usb read-perf USB0 0 1 64
check usb-unknown 1 'USBDAPI::getLogicalIdByName -> USBDDAPI::getLogicalIdByName: "USB Device Name Not Found - usb7"' \
  v usb info usb7
contains storage-list 0 'NVMe  NVME0         /dev/nvme0n1  /dev/nvme0n1 INTEL SSDPEDMD400G4' v storage list
contains storage-usb 0 'USB   USB0          /dev/sdf      /dev/sg5  SanDisk' v storage list
contains storage-read-compact 0 'USB0: 0.27s	29.43MB/s	NoAnyErrorSenseData' v storage read-test usb0 0 8 --compact
contains storage-smart-nvme 0 'Smart Log for NVME device: NVME0' v storage smart nvme0
contains storage-verify-json 0 '"sectors_per_command":2048,"commands":4,' v -o json storage verify-test NVME0 0 2
check storage-unknown 1 'StorageDAPI::getLogicalIDByName -> StorageDDAPI::getLogicalIDByName: "logical ID not found - SAS9-DRIVE0"' \
  v storage info SAS9-DRIVE0
contains storage-sas-first 0 '0   SAS   SAS1-DRIVE0   /dev/sda      /dev/sg0' v storage list
check storage-mounted 1 'write-test refused: /dev/sda holds a mounted file system (/dev/sda2 on /); add --force to write it anyway' \
  v storage write-test 0 0 1
contains storage-mounted-force 0 'NoAnyErrorSenseData' v storage write-test 0 0 1 --force
contains storage-zero-fill-mounted 1 'zero-fill refused: /dev/sda holds a mounted file system (/dev/sda2 on /)' v storage zero-fill SAS1-DRIVE0
contains storage-defects 0 'P&G-ListCount: ' v storage defects 0
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
