# Prints the n-th C block of a Markdown file.
/^```c$/ { inside = ++block == n; next }
/^```/ { inside = 0 }
inside
