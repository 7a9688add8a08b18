#!/usr/bin/env bash
# The manual page names every command and option of ksmem --help, and both name every form and
# option of KSMEM_SERVICE; a usage error is one line on standard error that names the problem,
# with exit status 2.
# usage: ksmem_cli_test.sh KSMEM MANUAL_PAGE
ksmem=$1
help=$("$ksmem" --help) || { echo "ksmem --help failed"; exit 1; }
page=$(sed 's/\\-/-/g' "$2")  # roff writes a hyphen as \-
service="embedded redis:// unix:// redis-cluster:// retention= retention-age= timeout= db= fault=
         fault-on= fault-every= fault-rate= fault-seed="
for word in $service; do
  grep -qF -- "$word" <<<"$help" || { echo "ksmem --help does not name $word"; exit 1; }
done
for word in $(sed -n '/^commands:/,/^$/ s/^  \([^ ]*\).*/\1/p' <<<"$help") \
            $(grep -o -- '--[a-z]*' <<<"$help") $service; do
  grep -qF -- "$word" <<<"$page" || { echo "the manual page does not name $word"; exit 1; }
done
error=$("$ksmem" put --server S 2>&1 >/dev/null)
status=$?
if [[ $status != 2 || $error != "ksmem: put needs --client; see 'ksmem --help'" ]]; then
  echo "ksmem put --server S: exit status $status, standard error: $error"; exit 1
fi
