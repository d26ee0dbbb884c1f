// The phone sandbox for end-to-end runs of the daemon, free of any test
// framework so that the demonstration program can use it as well:
//
//   enter_private_network()   once, before any thread exists
//   Phone                     the phone's files, serial port and memory card
//   Daemon                    a program run on the phone, its log and exit code
//   PcLine                    the PC's end of /dev/ttyGS3
//   WfmgrPeer                 wfmgr's end of TCP port 8030
//
// Still to come: a test charger library for /system/lib64/hw and a sender of
// USB uevents on a NETLINK_KOBJECT_UEVENT socket.
#pragma once

#include "sandbox_daemon.hpp"
#include "sandbox_io.hpp"
#include "sandbox_netns.hpp"
#include "sandbox_pc_line.hpp"
#include "sandbox_phone.hpp"
#include "sandbox_wfmgr_peer.hpp"
