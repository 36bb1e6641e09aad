// Starts, loads the C++ run-time library and ends: what any C++ program costs.
int main() {
    return 0;
}
