// The start-up floor: a process that links QtCore and builds a
// QCoreApplication, nothing else. kelvane -h can do no less.
#include <QCoreApplication>

int main(int argc, char **argv) {
    QCoreApplication application(argc, argv);
    return 0;
}
