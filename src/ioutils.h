// File tests of the list loader.
#pragma once

// 1 when the file does not exist, cannot be examined or is empty, else 0. Any thread.
int is_empty_file(const char *path);
