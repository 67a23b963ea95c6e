include $(sort $(wildcard $(BR2_EXTERNAL_STATUSMANAGER_PATH)/package/*/*.mk))
