# Read at the end of project(): the same sources as a version that comes later.
math(EXPR PROJECT_VERSION_MINOR "${PROJECT_VERSION_MINOR} + 1")
set(PROJECT_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.0)
