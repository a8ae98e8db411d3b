#include "daemon/startup.h"

int main(int argc, char **argv)
{
    return meterd_main(argc, argv);
}
