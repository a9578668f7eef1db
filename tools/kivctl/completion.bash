# The tool knows its own words.
eval "$(kivctl completion bash)"
