#!/bin/bash
# A drive agent that plays a transcript, for tests that need an exact
# sequence of messages. Transcript lines: "<" reads one request line (and
# appends it to "$SCRIPTED_AGENT_TRANSCRIPT.requests"), "> TEXT" writes TEXT
# as one line. At the end of the transcript the agent exits.
echo start
while IFS= read -r step <&3; do
  case "$step" in
    "<") IFS= read -r request || exit 0
         printf '%s\n' "$request" >> "$SCRIPTED_AGENT_TRANSCRIPT.requests" ;;
    ">"*) printf '%s\n' "${step:2}" ;;
  esac
done 3< "$SCRIPTED_AGENT_TRANSCRIPT"
