"""What the device tests share: devices, polling, SNMP answers, a scripted data service."""
