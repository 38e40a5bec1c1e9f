#include <cstdio>

#include "mount/options.h"

namespace zor::client::mount {

void printHelp() {
  std::fputs(
      "usage: udisk-mount [options] SOCKET MOUNTPOINT\n"
      "       mount.udisk SOCKET MOUNTPOINT [-sfnv] [-o options]   (as mount(8) calls it)\n"
      "\n"
      "Shows the disk that a host serves at SOCKET as a drive. To unmount it:\n"
      "fusermount3 -u MOUNTPOINT, or umount MOUNTPOINT.\n"
      "\n"
      "    -o quiet               report success when times or owners cannot be set\n"
      "    -o nosync              close waits for the host, but not for the disk itself\n"
      "    -o uid=N -o gid=N      user and group of all files\n"
      "    -o umask=OCTAL         permissions of all files: 0777 without these bits\n"
      "    -o default_permissions the kernel checks the permissions that are shown\n"
      "    -o allow_other         other users of this machine may use the drive as far as\n"
      "                           the permissions allow; implies default_permissions\n"
      "    -o attr_timeout=SEC    attribute cache lifetime in seconds (default 1)\n"
      "    -o timeout=SEC         time limit of requests to a lost host (default 30)\n"
      "    -o bandwidth=KBIT      bandwidth of this client; the host limits reads to it\n"
      "    -o allow_host_user=NAME\n"
      "    --allow-host-user=NAME use a host that this user runs, too; by default only\n"
      "                           your own hosts and root's are used\n"
      "    -o stats   --stats     print metrics at the end; SIGUSR1 prints them at any time\n"
      "\n"
      "SIGINT, SIGTERM and SIGHUP unmount the drive and end the program within 5 seconds;\n"
      "requests that the host has not answered by then fail. The exit code is 1 when the\n"
      "drive could not be mounted or data could not be written, and 2 for wrong\n"
      "arguments.\n"
      "Once mounted, the program runs in the background and reports to the system's log;\n"
      "with -f it stays in the foreground and reports on standard error.\n"
      "\n"
      "A line of /etc/fstab:\n"
      "    /run/user/1000/usb.sock /mnt/usb udisk noauto,user,uid=1000 0 0\n"
      "\n"
      "Symbolic links, device nodes and extended attributes are not supported; times\n"
      "cannot be set. File locks hold on this machine only.\n"
      "\n"
      "General options (max_threads is 64 by default):\n",
      stdout);
  std::fflush(stdout);
  fuse_cmdline_help();
  fuse_lowlevel_help();
}

void printVersion() {
  std::printf("udisk-mount %s\nlibfuse %s\n", UDISK_VERSION, fuse_pkgversion());
}

}  // namespace zor::client::mount
