#include "Qvdfx.h"

int main(int argc, char** argv)
{
    return qvdfx::runCommandLine(std::vector<std::string>(argv + 1, argv + argc));
}
