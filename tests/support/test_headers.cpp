// A program for the headers that are compiled once, for a compiler takes them from one with the same options only.
int main() {}
