"""What kivctl costs as it is installed: its size, and the instructions of a start beside those of a program that does
nothing. figures_test.py BUILD-TREE BARE, where BARE is linked with the same libraries."""
import shutil

from kivctl import *

MOST_BYTES = 96 * 1024
MOST_OVERHEAD = 0.10


def instructions(command):
    """Of the whole process, the loader's work included."""
    said = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={FOLDER}/callgrind", *command],
                          env={}, capture_output=True, text=True, timeout=LIMIT).stderr
    return int(re.search(r"Collected : (\d+)", said)[1])


tree, bare = sys.argv[1:]
# The run path of the file in the build tree has padding, and the loader looks into the current folder for it.
subprocess.run(["cmake", "--install", tree, "--prefix", FOLDER, "--strip"], check=True, stdout=subprocess.DEVNULL)
installed = FOLDER / "bin" / "kivctl"
size = installed.stat().st_size
print(size, "bytes stripped, of", MOST_BYTES)
check(size <= MOST_BYTES, "size", size)
if shutil.which("valgrind") and len(REAL) == 1:
    floor, start_of_help = instructions([bare]), instructions([installed, "--help"])
    overhead = start_of_help / floor - 1
    print(f"--help takes {start_of_help} instructions, a bare program {floor}: {overhead:.1%} more")
    check(overhead <= MOST_OVERHEAD, "overhead", overhead)
else:
    print("the start is not counted: that takes valgrind, and this machine's own code")
end()
