// Empty: a target that precompiles headers must have a source.
