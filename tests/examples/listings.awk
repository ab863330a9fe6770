# Splits a page of the guide: files by their names into the folder `files`; into the folder `listings` commands as
# NUMBER.sh, and what they print as NUMBER.text.
/^```$/ { out = ""; next }
/^```(c|py) / { out = files "/" $2; next }
/^```sh$/ { out = sprintf("%s/%02d.sh", listings, ++number); next }
/^```text$/ { out = sprintf("%s/%02d.text", listings, number); next }
/^```/ { print "unknown kind of listing: " $0 >"/dev/stderr"; exit 1 }
out != "" { print >out }
