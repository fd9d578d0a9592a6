# Takes a document's commands out of its ```console blocks. Each becomes a record of fields, a line each, that bash
# reads back: `command LINE`, the text of the command, `output`, the lines shown beneath it, `end`. A block below a line
# <!-- not run: REASON --> becomes `skipped LINE COUNT REASON`, a line <!-- $ COMMAND --> a command without output.
# What looks like a command elsewhere, so that nothing would run it, becomes `stray LINE TEXT`.
#
# Texts begin with a dot, so that none is taken for a keyword.

function finish_command() {
    if (state == "") return
    if (state == "command") print "output"
    print "end"
    state = ""
}

function is_command(text) {
    return text ~ /^\$ / || text ~ /^(\.\/dev|\.ci\/run|twin\/twin|upgradectl|mcu-emulator|nngcat|cmake|openssl|fw_setenv|fw_printenv) /
}

/^<!-- not run: .* -->$/ {
    reason = substr($0, 15, length($0) - 18)
    next
}

/^<!-- \$ .* -->$/ {
    print "command " FNR
    print "." substr($0, 8, length($0) - 11)
    print "output"
    print "...."
    print "end"
    next
}

/^ *```/ {
    if (fence == "") {
        fence = $0
        sub(/^ *```/, "", fence)
        if (fence == "") fence = "text"
        skipped = 0
        block = FNR
    } else {
        finish_command()
        if (fence == "console" && reason != "") print "skipped " block " " skipped " " reason
        fence = ""
        reason = ""
    }
    next
}

fence == "console" && reason != "" {
    if ($0 ~ /^\$ /) skipped++
    next
}

fence == "console" && state == "command" && (continued || $0 ~ /^> /) {
    text = $0
    sub(/^> /, "", text)
    print "." text
    continued = text ~ /\\$/
    next
}

fence == "console" && /^\$ / {
    finish_command()
    print "command " FNR
    print "." substr($0, 3)
    continued = $0 ~ /\\$/
    state = "command"
    next
}

fence == "console" {
    if (state == "") print "stray " FNR " " $0
    if (state == "command") print "output"
    if (state != "") {
        print "." $0
        state = "output"
    }
    next
}

fence != "" {
    if (fence ~ /^(sh|bash|shell)/ || is_command($0)) print "stray " FNR " " $0
    next
}

/^    / {
    text = $0
    sub(/^ +/, "", text)
    if (is_command(text)) print "stray " FNR " " text
}

$0 != "" { reason = "" }

END { if (fence != "") print "stray " block " a block without an end" }
