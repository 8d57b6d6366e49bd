#!/bin/bash
# Checks that each link in the pages leads to a file that exists and, behind a "#", to a heading in it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
failures=0

withoutCode() {
    sed '/^```/,/^```/d' "$1"
}

anchors() {
    withoutCode "$1" | sed -n 's/^##* //p' | tr '[:upper:]' '[:lower:]' |
        sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

links() {
    withoutCode "$1" | tr '\n' ' ' | grep -o ']([^)]*)' | sed 's/^](//; s/)$//; /^http/d'
}

for page in *.md */*.md; do
    while IFS= read -r link; do
        file=$page
        [[ $link == "#"* ]] || file=$(dirname "$page")/${link%%#*}
        if [[ ! -e $file ]]; then
            problem="there is no such file"
        elif [[ $link == *"#"* ]] && ! anchors "$file" | grep -qx -- "${link#*#}"; then
            problem="there is no such heading"
        else
            continue
        fi
        echo "$page: $link: $problem"
        failures=$((failures + 1))
    done < <(links "$page" || true) # a page may have none
done
exit $((failures > 0))
