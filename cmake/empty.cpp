// Placeholder translation unit for modules and targets that compile nothing of their own.
