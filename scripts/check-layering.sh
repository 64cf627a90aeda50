#!/usr/bin/env bash
# Fails when an include in orvexd/ points to a layer above the including file's own. The layers,
# bottom up: base, platform, model, network, feedback, query, core. The client library stands on
# model and base only, and nothing of the daemon includes it but core.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A allowed=(
  [base]="base"
  [platform]="base platform"
  [model]="base platform model"
  [network]="base platform model network"
  [feedback]="base platform model network feedback"
  [query]="base platform model network feedback query"
  [core]="base platform model network feedback query core client"
  [client]="base model client"
)

status=0
while IFS=: read -r file line text; do
  from=${file#orvexd/}
  from=${from%%/*}
  to=${text#*\"orvexd/}
  to=${to%%/*}
  if [[ -z ${allowed[$from]+set} ]]; then
    echo "$file: folder '$from' is in no layer" >&2
    status=1
  elif [[ " ${allowed[$from]} " != *" $to "* ]]; then
    echo "$file:$line: $from includes $to, a layer above it: $text" >&2
    status=1
  fi
done < <(grep -rn --include='*.h' --include='*.cc' '^#include "orvexd/' orvexd)

[[ $status -eq 0 ]] && echo "layering: every include in orvexd/ points down or within its layer"
exit $status
