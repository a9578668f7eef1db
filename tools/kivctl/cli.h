// The command line: verbs, options, and what a verb gets of them.
#ifndef KIVCTL_CLI_H
#define KIVCTL_CLI_H

namespace kivctl {

// How the program ends. These are part of its interface.
enum exit_code : int { done = 0, failed = 1, misused = 2, timed_out = 3, unavailable = 4 };

// The options, by key. A key is the program's own: one letter on the command line may mean two of them. Short
// texts are kept in place, here and below: each pointer is one more thing for the loader to do at every
// start.
struct option_row {
    char key;
    char letter; // 0: only the long name
    char name[9];
    char argument[15]; // what help calls it; empty: none
    const char *help;
};

struct option_value {
    char key;
    const char *text;
};

struct verb;

// A command line that has been read.
struct request {
    const verb *what;
    char *const *arguments;
    int count;
    bool json;
    const option_value *options;
    int option_count;

    bool has(char key) const { return value(key) != nullptr; }
    // Of the last one, if it is given several times; "" for an option without an argument.
    const char *value(char key) const;
};

struct verb {
    char area[11];
    char name[9];     // empty: the area is all that is said
    char options[11]; // keys
    const char *arguments;
    const char *summary;
    const char *example;
    exit_code (*run)(const request &);
    int least, most; // arguments
};

struct area {
    char name[11];
    const char *summary;
};

// The grammar. Both end with an empty name.
extern const area areas[];
extern const verb verbs[];

// Every verb takes these.
inline constexpr char common_options[] = "hJv";
const option_row *find_option(char key);

const area *find_area(const char *name);
const verb *find_verb(const char *area_name, const char *name);

constexpr int most_options = 64;

// Reads what follows the verb, or says what is wrong with it. parsed.options points into values.
exit_code read_arguments(const verb &what, int argc, char **argv, option_value (&values)[most_options],
                         request &parsed);

// Help, on standard output.
void help();
void help(const area &what);
void help(const verb &what);

} // namespace kivctl

#endif
