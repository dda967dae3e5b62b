"""The ROS 2 camera node (`ruvo-capture-ros`); needs the optional extra: pip install .[ros]."""
