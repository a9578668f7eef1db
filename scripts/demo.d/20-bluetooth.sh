# Bluetooth: a controller is reset and questioned through the H4 stream of the port hci0.
# shellcheck shell=bash

heading 'Bluetooth: a controller behind the port hci0'
say 'A host resets the simulated controller and asks what it is, with HCI packets on a stream of bytes (H4).
'
timeout 20 "$DEMO_BIN/hci_reset_on_board" || die 'the controller gave no answer'
