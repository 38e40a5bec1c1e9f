#include <fstream>
#include <sstream>

#include "support/process.h"
#include "workers.h"

namespace zor::soak {
namespace {

struct Program {
  const char* name;
  const char* script;
};

// In an empty directory of the drive's, $D, with $S for what is ordinary.
constexpr Program kPrograms[] = {
    {"rsync",
     "rsync -a $S/tree/ $D/t/; diff -r $S/tree $D/t; echo more >> $S/tree/a/f7; "
     "rsync -rc $S/tree/ $D/t/; diff -r $S/tree $D/t; rsync -r --delete $S/tree/a/ $D/t/; "
     "diff -r $S/tree/a $D/t"},
    {"git",
     "git clone -q $S/tree $D/c; cd $D/c; test -z \"$(git status --porcelain)\"; "
     "seq 3000 > new; git add new; git commit -qm more; git fsck --strict; git gc -q; "
     "git clone -q $D/c $S/back; diff -r -x .git $D/c $S/back"},
    {"sqlite",
     "for i in 1 2 3 4; do sqlite3 $D/db \"CREATE TABLE IF NOT EXISTS n(i INTEGER PRIMARY KEY, "
     "t); BEGIN; WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<1000) "
     "INSERT INTO n(t) SELECT hex(randomblob(40)) FROM c; COMMIT;\"; done; "
     "test $(sqlite3 $D/db 'SELECT count(*) FROM n') = 4000; "
     "test $(sqlite3 $D/db 'PRAGMA integrity_check') = ok"},
    {"tar",
     "tar cf - -C $S tree | tar xf - -C $D; diff -r $S/tree $D/tree; mv $D/tree $D/other; "
     "tar cf - -C $D other | tar xf - -C $S; diff -r $S/tree $S/other; cp -r $D/other $D/more; "
     "diff -r $D/other $D/more"},
};

constexpr const char* kMakeTree =
    "mkdir -p $S/tree/a/b; for i in $(seq 40); do seq $i 2000 > $S/tree/a/f$i; done; "
    "head -c 2000000 /dev/urandom > $S/tree/a/b/big; cd $S/tree; git init -q .; git add .; "
    "git commit -qm one; cd /; ";

}  // namespace

void runPrograms(Worker& worker) {
  const std::string drive = worker.rig.drive() / "programs";
  const std::string scratch = worker.rig.beside("scratch");
  const std::string output = worker.rig.beside("program.log");
  const std::string setting =
      "exec 2>&1; set -eu; S='" + scratch + "'; D='" + drive + "'; rm -rf $S $D; mkdir $S $D; " +
      "export HOME=$S GIT_CONFIG_COUNT=3 GIT_CONFIG_KEY_0=user.name GIT_CONFIG_VALUE_0=a "
      "GIT_CONFIG_KEY_1=user.email GIT_CONFIG_VALUE_1=a@b "
      "GIT_CONFIG_KEY_2=safe.directory GIT_CONFIG_VALUE_2='*'; " +
      kMakeTree;
  while (pauseFor(worker.ending, std::chrono::milliseconds(worker.dice.roll(2000)))) {
    const Program& program = kPrograms[worker.dice.roll(std::size(kPrograms))];
    const std::shared_lock whole(worker.rig.state.programs);
    worker.journal.add(program.name);
    const int code =
        test::waitFor(test::spawn({"sh", "-xc", setting + program.script}, output, "/dev/null"));
    if (code == 0) continue;
    std::ostringstream said;
    said << std::ifstream(output).rdbuf();
    throw Difference(
        std::string(program.name) + " ended with exit code " + std::to_string(code) + ":\n" +
        said.str().substr(said.str().size() - std::min<std::size_t>(said.str().size(), 1000)));
  }
}

}  // namespace zor::soak
