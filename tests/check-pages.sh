#!/bin/bash
# Checks that each link in the pages leads to a file that exists and, behind a "#", to a heading in it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
failures=0

withoutCode() { sed '/^```/,/^```/d' "$1"; }

anchors() {
    withoutCode "$1" | sed -n 's/^##* //p' | tr '[:upper:]' '[:lower:]' |
        sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

for page in *.md */*.md; do
    while IFS= read -r link; do
        file=$page
        [[ $link == "#"* ]] || file=$(dirname "$page")/${link%%#*}
        if [[ ! -e $file ]] ||
            { [[ $link == *"#"* ]] && ! anchors "$file" | grep -qx -- "${link#*#}"; }; then
            echo "$page: $link: there is no such file or heading"
            failures=$((failures + 1))
        fi
    done < <(withoutCode "$page" | tr '\n' ' ' | grep -oP '\]\(\K(?!http)[^)]*')
done
exit $((failures > 0))
