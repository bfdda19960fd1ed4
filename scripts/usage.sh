# For scripts to source, before they change directory: usage prints the comment at their head, which
# says what they do and how they are called. It ends at the line that begins with "set".
usage_text=$(sed -n '2,/^set/{/^set/!s/^# \{0,1\}//p}' "$0")
usage() { printf '%s\n' "$usage_text"; }
