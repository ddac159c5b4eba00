# What Doxygen is shown of a header, so that the header itself can do without marks. Lines keep their
# numbers.

1s/^/\/** @file *\/ /

# The manual at the head of the public header is the first page; its examples are code.
2{
  N
  s/^\n\/\/ (ConfSave keeps )/\/\/! @mainpage ConfSave\n\/\/! \1/
}
/^\/\/! @mainpage/,/^$/ {
  /^\/\/   /!s/</\&lt;/g
  s/^\/\/   /\/\/!     /
  s/^\/\/( |$)/\/\/!\1/
}

# Each namespace counts as documented; what is in it needs a comment of its own.
s/^namespace ConfSave \{$/\/** The library. *\/ &/
s/^namespace (toolsunix|path) \{$/\/** The platform's paths. *\/ &/

# A copy that is forbidden, or is made as always, needs no words.
s/.* = (delete|default);$//

s/<TAB>/\&lt;TAB\&gt;/g
