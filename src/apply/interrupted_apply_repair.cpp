// implementation pending
