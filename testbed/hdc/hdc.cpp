// A program that does nothing, built on purpose without a version resource:
// tests place it where an executable without version information is wanted.
int main() {
    return 0;
}
