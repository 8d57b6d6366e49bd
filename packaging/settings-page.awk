# Turns docs/settings.md into the manual page morvane.ini(5). It knows the Markdown that this page
# uses: headings, paragraphs, lists and tables of four cells.

# Markdown within a line to roff.
function inline(text,   result, code, parts) {
    gsub(/\\/, "\\e", text)
    while (match(text, /\[[^]]*\]\([^)]*\)/)) { # a link leaves its text
        code = substr(text, RSTART, RLENGTH)
        sub(/^\[/, "", code)
        sub(/\]\(.*$/, "", code)
        text = substr(text, 1, RSTART - 1) code substr(text, RSTART + RLENGTH)
    }
    result = ""
    while (match(text, /`[^`]*`|\*\*[^*]*\*\*/)) {
        code = substr(text, RSTART, RLENGTH)
        gsub(/^[`*]+|[`*]+$/, "", code)
        gsub(/-/, "\\-", code)
        result = result substr(text, 1, RSTART - 1) "\\fB" code "\\fR"
        text = substr(text, RSTART + RLENGTH)
    }
    return result text
}

# Prints a line of text. Escapes a first character that roff would take for a request.
function say(text) {
    print (text ~ /^[.']/ ? "\\&" : "") text
}

BEGIN {
    print ".TH MORVANE.INI 5 \"\" \"morvane\" \"File Formats\""
    print ".SH NAME\nmorvane.ini \\- settings of a transfer module\n.SH DESCRIPTION"
}
/^# / || /^\|---/ || /^\| key / { next }
/^## / { print ".SH \"" substr($0, 4) "\""; next }
/^\| / {
    split($0, cells, / *\| */)
    print ".TP\n\\fB" inline(cells[2]) "\\fR (" inline(cells[3]) ")"
    say(inline(cells[4]))
    print ".br"
    say("A bad value: " inline(cells[5]))
    next
}
/^- / { print ".IP \\(bu 2"; say(inline(substr($0, 3))); next }
/^$/ { print ".PP"; next }
{ sub(/^ +/, ""); say(inline($0)) }
END {
    print ".SH FILES\n.TP\n.I /usr/share/doc/morvane/examples/morvane.ini\nThe example."
    print ".SH \"SEE ALSO\"\n.BR morvane (8),\n.BR morvanectl (1)"
}
