// The manifest schema compiled into every serializer's grammar cache.

#include "tsappinstall/manifest/AppManifestSerializer.hpp"

namespace {

constexpr char kSchema[] = R"xsd(<?xml version="1.0" encoding="utf-8" standalone="no"?>
<xsd:schema xmlns:xsd="http://www.w3.org/2001/XMLSchema"
            xmlns="http://schemas.corvane.com/tessal/app/2012/appProperties"
            targetNamespace="http://schemas.corvane.com/tessal/app/2012/appProperties"
            elementFormDefault="qualified" attributeFormDefault="unqualified" blockDefault="#all">
  <xsd:element name="appProperties">
    <xsd:complexType>
      <xsd:sequence>
        <xsd:element name="entryPoint" type="xsd:string"/>
        <xsd:element name="name" type="xsd:string"/>
        <xsd:element name="version" type="xsd:string"/>
        <xsd:element name="createdByTESSALRelease" type="xsd:string"/>
        <xsd:element name="GUID" type="xsd:string"/>
        <xsd:element name="summary" type="xsd:string" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="description" type="xsd:string" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="minTESSALVer" type="xsd:string" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="maxTESSALVer" type="xsd:string" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="author" type="author-ref" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="supportedPlatforms" type="platform-list"/>
        <xsd:element name="requiredProducts" type="product-list" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="pathEntries" type="path-list" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="numFiles" type="xsd:string" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="created" type="xsd:dateTime" minOccurs="0" maxOccurs="1"/>
        <xsd:element name="appEntries" type="file-list" minOccurs="0" maxOccurs="1"/>
      </xsd:sequence>
      <xsd:attribute name="signature" type="xsd:string"/>
    </xsd:complexType>
  </xsd:element>
  <xsd:complexType name="author-ref">
    <xsd:sequence>
      <xsd:element name="name" type="xsd:string"/>
      <xsd:element name="contact" type="xsd:string"/>
      <xsd:element name="organization" type="xsd:string"/>
    </xsd:sequence>
  </xsd:complexType>
  <xsd:complexType name="path-list">
    <xsd:sequence>
      <xsd:element name="path" type="xsd:string" minOccurs="0" maxOccurs="unbounded"/>
    </xsd:sequence>
  </xsd:complexType>
  <xsd:complexType name="platform-list">
    <xsd:sequence>
      <xsd:element name="platform" type="xsd:string" minOccurs="0" maxOccurs="unbounded"/>
    </xsd:sequence>
  </xsd:complexType>
  <xsd:complexType name="product-type">
    <xsd:attribute name="identifier" type="xsd:string" use="required"/>
    <xsd:attribute name="name" type="xsd:string" use="required"/>
    <xsd:attribute name="version" type="xsd:string" use="required"/>
  </xsd:complexType>
  <xsd:complexType name="product-list">
    <xsd:sequence>
      <xsd:element name="product" type="product-type" minOccurs="0" maxOccurs="unbounded"/>
    </xsd:sequence>
  </xsd:complexType>
  <xsd:complexType name="file-list">
    <xsd:sequence>
      <xsd:element name="appFile" type="xsd:string" minOccurs="0" maxOccurs="unbounded"/>
    </xsd:sequence>
  </xsd:complexType>
</xsd:schema>
)xsd";

}  // namespace

const char* const AppManifestSerializer::SCHEMA = kSchema;
