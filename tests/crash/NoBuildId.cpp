// A program linked without a build id, for the module-identifier tests.
int main() { return 0; }
