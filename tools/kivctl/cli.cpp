// Reads the command line, and explains it.
//
//   Options      the table, and the reading of a verb's options by getopt_long
//   Help         of the program, an area, a verb
//   Completion   for bash, from the same tables

#include "cli.h"

#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <initializer_list>

#include "areas.h"
#include "output.h"

namespace kivctl {

// Options ------------------------------------------------------------------------------------------------

namespace {

constexpr option_row rows[] = {
    {'b', 'b', "baud", "RATE", "bits per second (115200)"},
    {'p', 'p', "parity", "none|odd|even", "parity (none)"},
    {'s', 's', "stop", "1|2", "stop bits (1)"},
    {'f', 'f', "flow", "none|hard", "flow control: hard is RTS/CTS (none)"},
    {'r', 0, "rts", "on|off", "raise or drop RTS"},
    {'x', 'x', "hex", "", "show bytes as hexadecimal digits"},
    {'t', 't', "time", "", "show when each line came"},
    {'l', 'l', "log", "FILE", "write to a file what is shown"},
    {'S', 0, "silence", "T", "a pause that ends an answer (200ms; serial term: 1s)"},
    {'T', 0, "timeout", "T", "the longest wait: 2s, 500ms"},
    {'c', 0, "capture", "FILE", "write Bluetooth packets to a btsnoop file; A is the host"},
    {'n', 'n', "count", "N", "end after so many"},
    {'B', 'b', "bus", "BUS", "number or device of the bus (0)"},
    {'F', 'f', "force", "", "use a chip that a kernel driver holds"},
    {'W', 0, "wide", "", "register addresses have two bytes, the high one first"},
    {'R', 0, "raw", "", "print the bytes themselves"},
    {'P', 0, "page", "N", "write so many bytes at a time, and wait until the chip is ready"},
    {'m', 0, "mode", "N", "which edges, in the device's numbers (1: rising)"},
    {'M', 0, "mac", "ADDR", "hardware address, as 02:00:00:00:00:01"},
    {'w', 'w', "write", "FILE", "write the frames to a pcap file"},
    {'i', 'r', "read", "FILE", "take the frames from a pcap file"},
    {'u', 0, "up", "", "set the interface up"},
    {'a', 0, "bdaddr", "ADDR", "Bluetooth address of this side"},
    {'L', 0, "link", "DEVICE", "the serial device that leads to the other side"},
    {'X', 0, "fail", "CALL=ERRNO@N", "make the N-th system call of a kind fail"},
    {'Y', 0, "tty", "N=WHAT", "far end of /dev/ttyKIVN: echo, silent, or a Unix socket (/path, @name)"},
    {'G', 0, "wire", "A=B", "connect pin A with pin B"},
    {'E', 0, "pin", "NAME=PIN", "a directory of that name in /sys/class/gpio"},
    {'K', 0, "cpuinfo", "FILE", "what is read from /proc/cpuinfo"},
    {'N', 0, "tun", "ADDR", "an Ethernet interface has this IPv4 host behind it"},
    {'J', 0, "json", "", "print one JSON object a line"},
    {'v', 'v', "verbose", "", "let the library's log through, on standard error"},
    {'h', 'h', "help", "", "this text"},
};

constexpr int most_rows = 16; // of one verb, with the common ones

// The rows of a verb, and what getopt_long wants to know of them.
struct option_set {
    const option_row *row[most_rows];
    int count = 0;
    option longs[most_rows + 1] = {};
    char letters[2 * most_rows + 3];

    explicit option_set(const verb &what) {
        char *letter = letters;
        *letter++ = what.run == sim ? '+' : '-'; // a command keeps its own options
        *letter++ = ':';
        for (const char *keys : {what.options, common_options})
            for (; *keys != '\0'; ++keys)
                letter = add(find_option(*keys), letter);
        *letter = '\0';
    }

    char *add(const option_row *fresh, char *letter) {
        const bool takes = fresh->argument[0] != '\0';
        longs[count] = {fresh->name, takes ? required_argument : no_argument, nullptr, 0};
        row[count++] = fresh;
        if (fresh->letter == 0)
            return letter;
        *letter++ = fresh->letter;
        if (takes)
            *letter++ = ':';
        return letter;
    }

    const option_row *by_letter(int letter) const {
        for (int i = 0; i < count; ++i)
            if (row[i]->letter == letter)
                return row[i];
        return nullptr;
    }
};

// As getopt_long; with musl that stops at a lone "-", which is an argument like others.
int next_option(int argc, char **argv, const option_set &set, int *index) {
    const int found = getopt_long(argc, argv, set.letters, set.longs, index);
    const bool stopped =
        found == -1 && optind < argc && set.letters[0] == '-' && strcmp(argv[optind - 1], "--") != 0;
    if (!stopped)
        return found;
    optarg = argv[optind++];
    return 1;
}

exit_code wrong_option(int found, const char *word) {
    const bool is_long = strncmp(word, "--", 2) == 0;
    if (found == ':')
        return is_long ? misuse("%s takes a value", word) : misuse("-%c takes a value", optopt);
    return is_long ? misuse("no option %s", word) : misuse("no option -%c", optopt);
}

exit_code wrong_count(const verb &what, int count) {
    if (count < what.least)
        return misuse("it takes %s", what.arguments);
    return what.most == 0 ? misuse("it takes no arguments")
                          : misuse("it takes %s and no more", what.arguments);
}

} // namespace

const option_row *find_option(char key) {
    for (const option_row &row : rows)
        if (row.key == key)
            return &row;
    return nullptr;
}

const char *request::value(char key) const {
    for (int i = option_count; i-- > 0;)
        if (options[i].key == key)
            return options[i].text;
    return nullptr;
}

exit_code read_arguments(const verb &what, int argc, char **argv, option_value (&values)[most_options],
                         request &parsed) {
    option_set set(what);
    int arguments = 0;
    parsed = {
        .what = &what, .arguments = argv, .count = 0, .json = false, .options = values, .option_count = 0};
    opterr = 0;
    optind = 0; // afresh: what another command line has left behind is forgotten
    for (int index = -1, found = 0; (found = next_option(argc, argv, set, &index)) != -1; index = -1) {
        if (found == '?' || found == ':')
            return wrong_option(found, argv[optind - 1]);
        if (found == 1) { // an argument between options: move it to the front, where they are collected
            argv[arguments++] = optarg;
            continue;
        }
        if (parsed.option_count == most_options)
            return misuse("too many options");
        const option_row *row = found == 0 ? set.row[index] : set.by_letter(found);
        values[parsed.option_count++] = {row->key, optarg != nullptr ? optarg : ""};
    }
    while (optind < argc)
        argv[arguments++] = argv[optind++];
    argv[arguments] = nullptr; // the command of sim goes to exec like this
    parsed.count = arguments;
    parsed.json = parsed.has('J');
    if (!parsed.has('h') && (parsed.count < what.least || parsed.count > what.most))
        return wrong_count(what, parsed.count);
    return done;
}

const area *find_area(const char *name) {
    for (const area *each = areas; each->name[0] != '\0'; ++each)
        if (strcmp(each->name, name) == 0)
            return each;
    return nullptr;
}

const verb *find_verb(const char *area_name, const char *name) {
    for (const verb *each = verbs; each->area[0] != '\0'; ++each)
        if (strcmp(each->area, area_name) == 0 &&
            (each->name[0] == '\0' || (name != nullptr && strcmp(each->name, name) == 0)))
            return each;
    return nullptr;
}

// Help ---------------------------------------------------------------------------------------------------

namespace {

// Nobody else prints: nothing is locked for it.
void put(const char *text) {
    fputs_unlocked(text, stdout);
}

// A name, and what it means in a column of its own.
void put_row(const char *name, size_t width, const char *meaning) {
    put("  ");
    put(name);
    for (size_t used = strlen(name); used < width; ++used)
        putchar_unlocked(' ');
    put(meaning);
    putchar_unlocked('\n');
}

void put_option(const option_row &row) {
    char name[64];
    char letter[] = "    ";
    if (row.letter != 0) {
        letter[0] = '-';
        letter[1] = row.letter;
        letter[2] = ',';
    }
    snprintf(name, sizeof name, "%s--%s %s", letter, row.name, row.argument);
    put_row(name, 28, row.help);
}

} // namespace

void help() {
    put("usage: kivctl AREA VERB [OPTION...] [ARGUMENT...]\n\nareas:\n");
    for (const area *each = areas; each->name[0] != '\0'; ++each)
        put_row(each->name, 12, each->summary);
    put("\nkivctl AREA -h tells the verbs of an area, kivctl AREA VERB -h the options of a verb.\n"
        "exit status: 0 done, 1 failed, 2 wrong usage, 3 time-out, 4 not available here\n"
        "example: kivctl serial term /dev/ttyUSB0 -b 9600\n");
}

void help(const area &what) {
    printf("usage: kivctl %s VERB [OPTION...] [ARGUMENT...]\n%s\n\nverbs:\n", what.name, what.summary);
    const char *example = "";
    for (const verb *each = verbs; each->area[0] != '\0'; ++each) {
        if (strcmp(each->area, what.name) != 0)
            continue;
        char name[64];
        snprintf(name, sizeof name, "%s %s", each->name, each->arguments);
        put_row(name, 28, each->summary);
        example = *example != '\0' ? example : each->example; // the first one's
    }
    printf("\nexample: %s\n", example);
}

void help(const verb &what) {
    printf("usage: kivctl %s%s%s [OPTION...] %s\n%s\n\noptions:\n", what.area,
           what.name[0] != '\0' ? " " : "", what.name, what.arguments, what.summary);
    for (const char *keys : {what.options, common_options})
        for (; *keys != '\0'; ++keys)
            put_option(*find_option(*keys));
    printf("\nexample: %s\n", what.example);
}

// Completion ---------------------------------------------------------------------------------------------

namespace {

void put_words_of(const verb &what) {
    for (const char *keys : {what.options, common_options})
        for (; *keys != '\0'; ++keys)
            printf(" --%s", find_option(*keys)->name);
}

void put_verbs_of(const char *area_name) {
    for (const verb *each = verbs; each->area[0] != '\0'; ++each)
        if (strcmp(each->area, area_name) == 0 && each->name[0] != '\0')
            printf(" %s", each->name);
}

} // namespace

exit_code completion_bash(const request &) {
    put("_kivctl() {\n    local word=${COMP_WORDS[COMP_CWORD]} words=\n"
        "    if [[ $COMP_CWORD -eq 1 ]]; then\n        words='");
    for (const area *each = areas; each->name[0] != '\0'; ++each)
        printf("%s ", each->name);
    put("--help --version'\n    else\n        case \"${COMP_WORDS[1]} ${COMP_WORDS[2]}\" in\n");
    for (const verb *each = verbs; each->area[0] != '\0'; ++each) {
        printf("        '%s %s'", each->area, each->name[0] != '\0' ? each->name : "'*'");
        put(") words='");
        put_words_of(*each);
        put("' ;;\n");
    }
    put("        esac\n        if [[ $COMP_CWORD -eq 2 ]]; then\n            case ${COMP_WORDS[1]} in\n");
    for (const area *each = areas; each->name[0] != '\0'; ++each) {
        if (find_verb(each->name, nullptr) != nullptr)
            continue; // it has no verbs
        printf("            %s) words='", each->name);
        put_verbs_of(each->name);
        put("' ;;\n");
    }
    put("            esac\n        fi\n    fi\n"
        "    # Words of ours first; files and devices where there is none.\n"
        "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
        "}\ncomplete -o default -F _kivctl kivctl\n");
    return done;
}

} // namespace kivctl
