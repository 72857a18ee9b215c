// A program that does nothing but end with a code that its parent can check.
int main() { return 7; }
