# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Loads the whole lab into the script that sources this.

lab_folder=$(dirname "${BASH_SOURCE[0]}")
# shellcheck source=lab/isolate.sh
source "$lab_folder/isolate.sh"
# shellcheck source=lab/await.sh
source "$lab_folder/await.sh"
# shellcheck source=lab/network.sh
source "$lab_folder/network.sh"
# shellcheck source=lab/hardware.sh
source "$lab_folder/hardware.sh"
# shellcheck source=lab/syslog.sh
source "$lab_folder/syslog.sh"
# shellcheck source=lab/daemon.sh
source "$lab_folder/daemon.sh"
# shellcheck source=lab/transfer.sh
source "$lab_folder/transfer.sh"
# shellcheck source=lab/capture.sh
source "$lab_folder/capture.sh"
