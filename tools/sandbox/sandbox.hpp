// The phone sandbox for end-to-end runs of the daemon, free of any test
// framework so that the demonstration program can use it as well:
//
//   enter_private_network()   once, before any thread exists
//   Phone                     the phone's files, serial port and memory card
//   Daemon                    a program run on the phone, its log and exit code
//   PcLine                    the PC's end of /dev/ttyGS3
//   WfmgrPeer                 wfmgr's end of TCP port 8030
//   send_kernel_uevent()      a USB uevent as the kernel sends it, and
//   send_user_uevent()        one sent by a process, which must not count
//   FixturePhone              a phone of a station's fixture, in a network of its own
//   FixtureSlot               a slot of the fixture: phones taken off and put on
//
// The phone also carries a test charger library (built by CMake as
// amt_test_charger) that records its calls.
#pragma once

#include "sandbox_daemon.hpp"
#include "sandbox_fixture.hpp"
#include "sandbox_io.hpp"
#include "sandbox_netns.hpp"
#include "sandbox_pc_line.hpp"
#include "sandbox_phone.hpp"
#include "sandbox_slot.hpp"
#include "sandbox_uevent.hpp"
#include "sandbox_wfmgr_peer.hpp"
