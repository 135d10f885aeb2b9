"""What the black-box tests are made of: the agent's process, the management plane, applications, all independent of
the agent's own code."""
