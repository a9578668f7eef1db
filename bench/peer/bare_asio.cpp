// As bare.c: Boost.Asio has no library of its own, so this is a program with the object that every use of it
// needs.
#include <utility> // Boost 1.74 lacks it

#include <boost/asio/io_context.hpp>
#include <unistd.h>

int main(int argc, char **) {
    const boost::asio::io_context context;
    char byte = '\n';
    if (argc > 1 && ::write(1, &byte, 1) == 1)
        while (::read(0, &byte, 1) > 0) {
        }
    return 0;
}
