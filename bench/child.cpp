// A program that only exits, with a code that its parent can check.
int main() { return 7; }
