// kivctl: what the library does, from a shell.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

#include "cli.h"
#include "output.h"
#include "watch.h"

using namespace kivctl;

namespace {

// A device that is opened while standard output is closed would get its number, and the data. What stands in
// fails as a closed one does.
void hold_standard_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd)
            _exit(failed);
}

exit_code run(const verb &what, int argc, char **argv) {
    option_value values[most_options];
    request parsed{};
    name_command(what);
    const exit_code code = read_arguments(what, argc, argv, values, parsed);
    if (code != done)
        return code;
    if (parsed.has('h')) {
        help(what);
        return done;
    }
    if (parsed.has('v'))
        let_log_through();
    return what.run(parsed);
}

bool is_help(const char *word) {
    return strcmp(word, "-h") == 0 || strcmp(word, "--help") == 0 || strcmp(word, "help") == 0;
}

exit_code dispatch(int argc, char **argv) {
    if (argc < 2)
        return misuse("an area is missing");
    if (is_help(argv[1])) {
        help();
        return done;
    }
    if (strcmp(argv[1], "--version") == 0) {
        puts("kivctl " KIVCTL_VERSION);
        return done;
    }
    const area *where = find_area(argv[1]);
    if (where == nullptr)
        return misuse("no area '%s'", argv[1]);
    const verb *what = find_verb(argv[1], argc > 2 ? argv[2] : nullptr);
    if (what != nullptr)
        return run(*what, argc - (what->name[0] != '\0' ? 2 : 1), argv + (what->name[0] != '\0' ? 2 : 1));
    if (argc > 2 && is_help(argv[2])) {
        help(*where);
        return done;
    }
    if (argc > 2)
        return fail(misused, nullptr, "%s: no verb '%s'; try kivctl %s -h", argv[1], argv[2], argv[1]);
    return fail(misused, nullptr, "%s: a verb is missing; try kivctl %s -h", argv[1], argv[1]);
}

} // namespace

int main(int argc, char **argv) {
    hold_standard_descriptors();
    signal(SIGPIPE, SIG_IGN);
    const exit_code code = dispatch(argc, argv);
    const exit_code written = flush_output();
    leave(code != done ? code : written);
}
