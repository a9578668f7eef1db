include $(sort $(wildcard $(BR2_EXTERNAL_KIV_PATH)/package/*/*.mk))
