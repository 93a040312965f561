// The empty program that each layer is linked into, to show that it needs only what it declares.
int main() { return 0; }
