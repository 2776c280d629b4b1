#include "support/backend_environment.h"

int main(int argc, char** argv) { return runTestsWithBackend(argc, argv); }
