# The names in declarations.c, one a line: with sed -nE.
s/^[a-z][a-z0-9_ *]*[ *]([a-z0-9_]+)[([].*/\1/p
