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
      "    -o quiet               setting times and owners succeeds silently\n"
      "    -o nosync              close does not wait for the disk itself, only for the host\n"
      "    -o uid=N -o gid=N      show all files as this user's and group's\n"
      "    -o umask=OCTAL         show permissions as 0777 without these bits\n"
      "    -o default_permissions let the kernel check permissions, as they are shown\n"
      "    -o allow_other         let other users of this machine use the drive as the\n"
      "                           permissions say: implies default_permissions\n"
      "    -o attr_timeout=SEC    what is known of a file counts for so long (1)\n"
      "    -o timeout=SEC         requests wait for a lost host for so long (30)\n"
      "    -o bandwidth=KBIT      tell the host how fast this side can take data\n"
      "    -o allow_host_user=NAME\n"
      "    --allow-host-user=NAME use a host that this user runs; otherwise only your own\n"
      "                           and root's are used\n"
      "    -o stats   --stats     print statistics at the end, as on SIGUSR1 in any case\n"
      "\n"
      "SIGINT, SIGTERM and SIGHUP unmount, and end within 5 seconds whatever the host\n"
      "does: what it has not answered by then fails. The exit code is 1 when the drive\n"
      "could not be mounted or when something could not be written, and 2 for wrong\n"
      "arguments.\n"
      "Once mounted it runs in the background and tells the system's log what is to be\n"
      "told; with -f it stays, and tells standard error.\n"
      "\n"
      "A line of /etc/fstab:\n"
      "    /run/user/1000/usb.sock /mnt/usb udisk noauto,user,uid=1000 0 0\n"
      "\n"
      "There are no symbolic links to be made or read, no device nodes, no extended\n"
      "attributes, and no times to be set. File locks count on this machine only.\n"
      "\n"
      "General options (max_threads is 64 here unless given):\n",
      stdout);
  std::fflush(stdout);
  fuse_cmdline_help();
  fuse_lowlevel_help();
}

void printVersion() {
  std::printf("udisk-mount %s\nlibfuse %s\n", UDISK_VERSION, fuse_pkgversion());
}

}  // namespace zor::client::mount
